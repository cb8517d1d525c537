// Pieces of crossover shared by its translation units.
//
// Everything works in the units of the simplex record (scaled solver copy, '>' rows
// negated). Inside the push phases Cbar holds the plain reduced cost c_j - y'a_j for
// every variable (no sign turn at an upper bound); for a basic variable it is the
// reduced cost still to be pushed away. Primal values: Bbar for basics, the bound or
// warmStart (status -3) for nonbasics. The simplex recomputes both at its start.
#pragma once

#include "barrier/crossover.h"
#include "simplex/lp.h"

// The kept candidates of the basis step, best first.
struct VRXxlist {
  VRXmodel* model;
  VRXlp* lp;
  int count;
  int* cands;
};

namespace vrx {
namespace cross {

struct State {
  VRXmodel* model;
  VRXlp* lp;
  VRXenv* env;
  Clock* clock;
  int n, m;
  int setting;         // Crossover
  int basisKind;       // CrossoverBasis
  double* x;           // n+m: the interior point
  double* d;           // n+m: its reduced costs c - A'y
  double* y;           // m
  char* cand;          // n+m: 1 candidate, 2 added by widening
  double* key;         // n+m scratch of the sorts
  int* order;          // n+m scratch of the sorts
  char* mark;          // n+m, zero between uses
  int* targets;        // n+m push list
  int* deferred;       // n+m pushes skipped for a small pivot
  int* startStat;      // n+m statuses right after the basis step
  int* startHead;      // m
  VRXxlist list;       // list.cands is the key-sorted candidate buffer (n+m)
  int basisCount;      // candidates kept
  int addedToBasis;    // widened columns that ended in the basis
  double pivotCheck;   // relative pivot threshold of the basis pass
  double pushMoves;    // basis exchanges and bound moves of the push phases
  int pushFailed;      // numeric trouble in a push pass
  bool driftCheck;     // carried values far from recomputed ones count as trouble
  double relPivot;     // push pivots below this share of their row or column wait
  double hugeDual;     // largest |reduced cost| met while pushing
  int freeLeft;        // free variables that could not be made basic
  int status;          // 1 while pushing; 9 or 11 after a limit
  double lastLogTime;
  int sinceClock;
  double pinf, dinf;   // measured after the push phases
  double valueCap;     // basic values beyond this mean the pushes lost accuracy
};

// Statuses, warm values and basis from the interior point (classification, candidate
// rules, initial basis). Leaves the factor built and Bbar computed. 0 or an error.
int selectBasis(State& st);

// The progress line of the basis step, printed each DisplayInterval while it runs.
struct BasisProgress {
  VRXenv* env;
  const Clock* clock;
  double interval;  // seconds between lines
  double last;      // time of the last line (or of the start)
};
// Prints the line when the interval has passed; bp may be null.
void basisProgress(BasisProgress* bp);

// Builds a non-singular basis in head (m entries) that takes candidates of the list
// in rank order, completed by slacks. pivotCheck is the relative size a pivot must
// have in its column; stable first takes only near-largest pivots. 0 or 10001.
int VRXcrossBasisTri(VRXxlist* xl, int* head, double pivotCheck, int stable, BasisProgress* bp);
// The same through an LU of the candidates: the columns it cannot pivot go out, and so do
// those whose pivot is tiny against their column of U (each replaced by the slack of its
// pivot row). 0, 10001, or 10025 when the factor cannot settle (the caller falls back to
// the pass above).
int VRXcrossBasisLU(VRXxlist* xl, int* head, double pivotCheck, double* work, BasisProgress* bp);

// Replaces columns of the non-singular basis head by slacks while the estimated 1-norm
// of its inverse is large: snapping the nonbasic values to their bounds moves the basic
// ones by about that many times the move. *swaps is the number replaced. 0 or 10001.
int VRXcrossBasisRepair(VRXlp* lp, int* head, double pivotCheck, double* work, BasisProgress* bp, int* swaps);

// The two push loops; phase is 1 for the first pushes, 2 for the second. They return
// 0 or an error; st.status leaves 1 on a limit, st.pushFailed is set on numeric trouble.
// *found is the number of targets the pass had.
template <class T>
int VRXcrossPushDual(State& st, int phase, int* found);
template <class T>
int VRXcrossPushPrimal(State& st, int phase, int* found);

// Factor from lp's basis head with a silent slack repair of dropped columns, then Bbar
// from the nonbasic values (and Cbar of the nonbasics from the basics' reduced costs
// when withDual). carried: Bbar holds the values the pushes carried, and with
// st.driftCheck a large distance from the recomputed ones fails the pushes. Returns 0 or
// an error; a repair sets st.pushFailed.
template <class T>
int refresh(State& st, bool withDual, bool carried = false);
// Sums of primal and dual infeasibility of the basis with the true costs, into st.pinf
// and st.dinf (Bbar and Cbar left as the simplex reads them: Cbar sign-turned at upper).
template <class T>
int measure(State& st);

// Log kinds of VRXcrossLog.
enum LogKind { kLogHeader, kLogRootHeader, kLogDual, kLogPrimal, kLogFree, kLogAdded, kLogDone, kLogRestart };
// The crossover log writer; count and value as the line takes them.
void VRXcrossLog(VRXlp* lp, int kind, double count, double value, double value2, const Clock& clock);

// Nonbasic value of j by its status.
inline double nonbasicValue(const VRXlp* lp, int j) {
  const int s = lp->varStat[j];
  if (s == VRX_VS_LOWER || s == VRX_VS_FIX_LOWER) return lp->lower[j];
  if (s == VRX_VS_UPPER || s == VRX_VS_FIX_UPPER) return lp->upper[j];
  return lp->warmStart ? lp->warmStart[j] : 0.0;
}

// Sorts idx[0..count) by key ascending, ties by index so that runs repeat.
void sortByKey(int* idx, int count, const double* key);

// Copies the basis of the basis step into the factor, loads the interior reduced costs
// into Cbar and refreshes. 0 or an error.
template <class T>
int startBasis(State& st);

// Polls the terminate flag and the limits; sets st.status 11 or 9. True to stop.
bool limitReached(State& st);

}  // namespace cross
}  // namespace vrx
