// The MPS writer.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "env/envvec.h"
#include "io/mps.h"
#include "io/numfmt.h"
#include "model/model.h"
#include "model/modeldata.h"

namespace vrx {

namespace {

bool unsafeName(const char* s) {
  if (!s || !*s) return true;
  for (; *s; ++s)
    if (*s == ' ' || *s == ':' || *s == '\\' || *s == '\t' || *s == '\n' || *s == '\r')
      return true;
  return false;
}

// True when every name of the list can be written as it stands.
bool namesUsable(char** names, int count) {
  if (count == 0) return true;
  if (!names) return false;
  for (int i = 0; i < count; ++i)
    if (unsafeName(names[i])) return false;
  return true;
}

struct Writer {
  VRXenv* env;
  Stream* s;
  const VRXmodeldata* d;
  bool varNames, conNames;
  char nb[kNumBuf] = {};
  char nameA[32] = {};
  char nameB[32] = {};
  int err = 0;

  const char* var(int j, char* buf) {
    if (varNames) return d->varName[j];
    std::snprintf(buf, 32, "C%d", j);
    return buf;
  }
  const char* con(int i, char* buf) {
    if (conNames) return d->constrName[i];
    std::snprintf(buf, 32, "R%d", i);
    return buf;
  }
  const char* num(double v) { return formatNumber(v, nb); }
  template <class... A>
  void put(const char* fmt, A... args) {
    if (!err) err = streamPrintf(s, fmt, args...);
  }
};

}  // namespace

int mpsWrite(VRXenv* env, const VRXmodel* model, Stream* s) {
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  Writer w{env, s, d, namesUsable(d->varName, n), namesUsable(d->constrName, m), {}, {}, {}, 0};
  if (!w.varNames && n > 0) log(env, "Warning: default variable names used to write mps file\n");
  if (!w.conNames && m > 0) log(env, "Warning: default constraint names used to write mps file\n");

  w.put("NAME %s\n", d->modelName ? d->modelName : "");
  if (d->modelSense < 0) w.put("* Max problem is converted into Min one\n");
  w.put("ROWS\n");
  w.put(" N  OBJ\n");
  for (int i = 0; i < m; ++i) {
    char c = d->sense[i] == '<' ? 'L' : (d->sense[i] == '>' ? 'G' : 'E');
    w.put(" %c  %-8s\n", c, w.con(i, w.nameA));
  }

  w.put("COLUMNS\n");
  bool inInt = false;
  for (int j = 0; j < n && !w.err; ++j) {
    char t = d->vtype[j];
    bool isInt = t == 'I' || t == 'B' || t == 'N';
    if (isInt != inInt) {
      w.put("    MARKER    %s                 %s\n", "'MARKER'", isInt ? "'INTORG'" : "'INTEND'");
      inInt = isInt;
    }
    const char* name = w.var(j, w.nameA);
    int64_t beg = d->colBeg[j];
    int len = d->colLen[j];
    // A column with no entry at all still needs a line to exist.
    if (d->obj[j] != 0.0 || len == 0) w.put("    %-8s  OBJ       %s\n", name, w.num(d->obj[j]));
    for (int64_t p = beg; p < beg + len; ++p)
      w.put("    %-8s  %-8s  %s\n", name, w.con(d->rowInd[p], w.nameB), w.num(d->val[p]));
  }
  if (inInt) w.put("    MARKER    %s                 %s\n", "'MARKER'", "'INTEND'");

  w.put("RHS\n");
  if (d->objCon != 0.0) w.put("    RHS1      OBJ       %s\n", w.num(-d->objCon));
  for (int i = 0; i < m; ++i)
    if (d->rhs[i] != 0.0) w.put("    RHS1      %-8s  %s\n", w.con(i, w.nameA), w.num(d->rhs[i]));

  w.put("BOUNDS\n");
  for (int j = 0; j < n && !w.err; ++j) {
    const char* name = w.var(j, w.nameA);
    double lb = d->lb[j], ub = d->ub[j];
    char t = d->vtype[j];
    bool lbInf = lb <= -kInf, ubInf = ub >= kInf;
    if (t == 'S' || t == 'N') {
      if (lb != 0.0) {
        if (lbInf)
          w.put(" MI BND1      %-8s\n", name);
        else
          w.put(" LO BND1      %-8s  %s\n", name, w.num(lb));
      }
      w.put(" SC BND1      %-8s  %s\n", name, ubInf ? "1e+100" : w.num(ub));
      continue;
    }
    if (t == 'B' && lb == 0.0 && ub == 1.0) {
      w.put(" BV BND1      %-8s\n", name);
      continue;
    }
    if (lbInf && ubInf) {
      w.put(" FR BND1      %-8s\n", name);
    } else if (lb == ub) {
      w.put(" FX BND1      %-8s  %s\n", name, w.num(lb));
    } else {
      if (lbInf)
        w.put(" MI BND1      %-8s\n", name);
      else if (lb != 0.0)
        w.put(" LO BND1      %-8s  %s\n", name, w.num(lb));
      if (!ubInf) w.put(" UP BND1      %-8s  %s\n", name, w.num(ub));
    }
  }

  if (d->numSOS > 0) {
    w.put("SOS\n");
    for (int k = 0; k < d->numSOS; ++k) {
      w.put(" S%d s%d\n", d->sosType[k], k);
      for (int64_t p = d->sosBeg[k]; p < d->sosBeg[k + 1]; ++p)
        w.put("    %-8s  %s\n", w.var(d->sosInd[p], w.nameA), w.num(d->sosWeight[p]));
    }
  }

  if (d->numQNZs > 0) {
    // The upper triangle of Q in 1/2 x'Qx: a term a x_i x_j is Q_ij = a off the
    // diagonal and Q_ii = 2a on it; the store keeps 2a for either.
    EnvVec<int> ri(env), ci(env);
    EnvVec<double> vv(env);
    for (int k = 0; k < d->numQNZs; ++k) {
      int i = d->qRow[k], j = d->qCol[k];
      if (i > j) std::swap(i, j);
      ri.push_back(i);
      ci.push_back(j);
      vv.push_back(i == j ? d->qVal[k] : 0.5 * d->qVal[k]);
    }
    // Merge equal pairs after sorting by (i, j).
    EnvVec<int> order(env);
    order.resize(ri.size());
    for (size_t k = 0; k < ri.size(); ++k) order[k] = static_cast<int>(k);
    std::sort(order.data(), order.data() + order.size(), [&](int a, int b) {
      return ri[static_cast<size_t>(a)] != ri[static_cast<size_t>(b)]
                 ? ri[static_cast<size_t>(a)] < ri[static_cast<size_t>(b)]
                 : ci[static_cast<size_t>(a)] < ci[static_cast<size_t>(b)];
    });
    w.put("QUADOBJ\n");
    for (size_t k = 0; k < order.size();) {
      size_t a = static_cast<size_t>(order[k]);
      double sum = 0;
      size_t e = k;
      while (e < order.size() && ri[static_cast<size_t>(order[e])] == ri[a] &&
             ci[static_cast<size_t>(order[e])] == ci[a])
        sum += vv[static_cast<size_t>(order[e++])];
      if (sum != 0.0)
        w.put("    %-8s  %-8s  %s\n", w.var(ri[a], w.nameA), w.var(ci[a], w.nameB), w.num(sum));
      k = e;
    }
  }
  w.put("ENDATA\n");
  return w.err;
}

}  // namespace vrx
