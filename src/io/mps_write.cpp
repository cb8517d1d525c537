// The MPS writer.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "env/envvec.h"
#include "env/nameindex.h"
#include "io/mps.h"
#include "io/numfmt.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/result.h"

namespace vrx {

namespace {

bool unsafeName(const char* s) {
  if (!s || !*s) return true;
  // A row named like the marker literal would read as a marker line.
  if (std::strcmp(s, "'MARKER'") == 0) return true;
  for (; *s; ++s)
    if (*s == ' ' || *s == ':' || *s == '\\' || *s == '\t' || *s == '\n' || *s == '\r')
      return true;
  return false;
}

// The objective rows are "OBJ" and "OBJ<k>": a constraint of that name
// would be taken for one of them when the file is read.
bool objectiveRowName(const char* s, int numObj) {
  if (std::strncmp(s, "OBJ", 3) != 0) return false;
  if (s[3] == '\0') return true;
  if (numObj == 0) return false;
  for (const char* p = s + 3; *p; ++p)
    if (*p < '0' || *p > '9') return false;
  return true;
}

// True when the rows of the three kinds, by their names or by the defaults
// "R%d", "QC%d" and "GC%d" where the list is null, and the cone rows
// "cone%d" share a name.
bool rowNamesClash(VRXenv* env, char* const* lin, int m, char* const* qc, int nq, char* const* ind, int ni,
                   int nc) {
  NameIndex* idx = nameIndexCreate(env, static_cast<int>((m + nq + ni + nc) * 1.4) + 1, true);
  if (!idx) throw std::bad_alloc();
  char buf[32];
  bool clash = false;
  auto add = [&](char* const* names, int count, const char* fmt) {
    for (int i = 0; i < count && !clash; ++i) {
      const char* nm = names ? names[i] : buf;
      if (!names) std::snprintf(buf, sizeof buf, fmt, i);
      if (nameIndexFind(idx, nm) >= 0) {
        clash = true;
      } else if (nameIndexInsert(env, idx, nm, i)) {
        nameIndexFree(env, idx);
        throw std::bad_alloc();
      }
    }
  };
  add(lin, m, "R%d");
  add(qc, nq, "QC%d");
  add(ind, ni, "GC%d");
  add(nullptr, nc, "cone%d");
  nameIndexFree(env, idx);
  return clash;
}

// True when every name of the list can be written as it stands and reads
// back as the same item: present, safe, distinct, and no objective's name.
bool namesUsable(VRXenv* env, char* const* names, int count, bool rows, int numObj) {
  if (count == 0) return true;
  if (!names) return false;
  for (int i = 0; i < count; ++i)
    if (unsafeName(names[i]) || (rows && objectiveRowName(names[i], numObj))) return false;
  NameIndex* idx = nameIndexCreate(env, static_cast<int>(count * 1.4) + 1, true);
  if (!idx) throw std::bad_alloc();
  bool distinct = true;
  for (int i = 0; i < count && distinct; ++i) {
    if (nameIndexFind(idx, names[i]) >= 0) {
      distinct = false;
    } else if (nameIndexInsert(env, idx, names[i], i)) {
      nameIndexFree(env, idx);
      throw std::bad_alloc();
    }
  }
  nameIndexFree(env, idx);
  return distinct;
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

int mpsWrite(VRXenv* env, const VRXmodel* model, Stream* s, bool rewrite) {
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  const VRXobjlist* objs = model->objList && model->objList->count > 0 ? model->objList : nullptr;
  const int numObj = objs ? objs->count : 0;
  // Rewritten names are the defaults throughout, by choice: nothing to warn about.
  const bool varNames = !rewrite && namesUsable(env, d->varName, n, false, numObj);
  const bool conNames = !rewrite && namesUsable(env, d->constrName, m, true, numObj);
  Writer w{env, s, d, varNames, conNames, {}, {}, {}, 0};
  if (!rewrite && !w.varNames && n > 0) log(env, "Warning: default variable names used to write mps file\n");
  if (!rewrite && !w.conNames && m > 0) log(env, "Warning: default constraint names used to write mps file\n");

  // Quadratic and indicator constraints are rows of the file too, named as
  // the model names them unless a name is unsafe or taken by another row.
  const int nq = d->numQConstrs;
  EnvVec<int> indicators(env);
  EnvVec<char*> indNames(env);
  for (int g = 0; g < d->numGenConstrs; ++g)
    if (d->genConstrs[g].type == VRX_GENCONSTR_INDICATOR) {
      indicators.push_back(g);
      indNames.push_back(d->genConstrs[g].name);
    }
  const int ni = static_cast<int>(indicators.size());
  bool qcNames = !rewrite && namesUsable(env, d->qcName, nq, true, numObj);
  bool genNames = !rewrite && namesUsable(env, indNames.data(), ni, true, numObj);
  // Cones are written as the quadratic rows -x0^2 + x1^2 + ... <= 0, as in LP files.
  const int nc = d->numCones;
  if ((w.conNames || qcNames || genNames) && (nq > 0 || ni > 0 || nc > 0) &&
      rowNamesClash(env, w.conNames ? d->constrName : nullptr, m, qcNames ? d->qcName : nullptr, nq,
                    genNames ? indNames.data() : nullptr, ni, nc)) {
    // The defaults of the three kinds never meet.
    if (w.conNames && m > 0) log(env, "Warning: default constraint names used to write mps file\n");
    w.conNames = qcNames = genNames = false;
  }
  if (!rewrite && !qcNames && nq > 0) log(env, "Warning: default Q constraint names used to write mps file\n");
  char qcBuf[32], genBuf[32];
  auto qcName = [&](int q) -> const char* {
    if (qcNames) return d->qcName[q];
    std::snprintf(qcBuf, sizeof qcBuf, "QC%d", q);
    return qcBuf;
  };
  auto genName = [&](int g) -> const char* {
    // Only indicators are rows; the others' names are labels of their own.
    const char* nm = d->genConstrs[g].name;
    bool own = d->genConstrs[g].type == VRX_GENCONSTR_INDICATOR ? genNames : !rewrite;
    if (own && nm && !unsafeName(nm)) return nm;
    std::snprintf(genBuf, sizeof genBuf, "GC%d", g);
    return genBuf;
  };
  auto letter = [](char sn) { return sn == '<' ? 'L' : (sn == '>' ? 'G' : 'E'); };
  const double flip = d->modelSense < 0 ? -1.0 : 1.0;  // further objectives are in the caller's sense

  w.put("NAME %s\n", d->modelName ? d->modelName : "");
  if (d->modelSense < 0) w.put("* Max problem is converted into Min one\n");
  w.put("ROWS\n");
  w.put(" N  OBJ\n");
  if (objs)
    for (int k = 0; k < objs->count; ++k) {
      const VRXobjective& o = objs->items[k];
      char a[kNumBuf], b[kNumBuf], c[kNumBuf];
      w.put(" N  OBJ%d  %d %s %s %s\n", k, o.priority, formatNumber(o.weight, a),
            formatNumber(o.absTol, b), formatNumber(o.relTol, c));
    }
  const int* lazy = model->lazyFlag;
  for (int i = 0; i < m; ++i)
    if (!lazy || lazy[i] == 0) w.put(" %c  %-8s\n", letter(d->sense[i]), w.con(i, w.nameA));
  for (int q = 0; q < nq; ++q) w.put(" %c  %-8s\n", letter(d->qcSense[q]), qcName(q));
  for (int c = 0; c < nc; ++c) w.put(" L  cone%d\n", c);
  for (int k = 0; k < ni; ++k) {
    const VRXgenconstr& g = d->genConstrs[indicators[static_cast<size_t>(k)]];
    w.put(" %c  %-8s\n", letter(g.sense), genName(indicators[static_cast<size_t>(k)]));
  }
  if (lazy) {
    // One section per lazy value, in increasing order.
    int last = 0;
    for (;;) {
      int next = 0;
      for (int i = 0; i < m; ++i)
        if (lazy[i] > last && (next == 0 || lazy[i] < next)) next = lazy[i];
      if (next == 0) break;
      if (next == 1)
        w.put("LAZYCONS\n");
      else
        w.put("LAZYCONS %d\n", next);
      for (int i = 0; i < m; ++i)
        if (lazy[i] == next) w.put(" %c  %-8s\n", letter(d->sense[i]), w.con(i, w.nameA));
      last = next;
    }
  }

  // Linear parts of quadratic and indicator rows, by column.
  struct Extra {
    int col;
    int slot;  // 0..nq-1 quadratic, nq.. indicator
    double val;
  };
  EnvVec<Extra> extra(env);
  for (int q = 0; q < nq; ++q)
    for (int64_t p = d->qcLinBeg[q]; p < d->qcLinBeg[q + 1]; ++p)
      extra.push_back(Extra{d->qcLinInd[p], q, d->qcLinVal[p]});
  for (int k = 0; k < ni; ++k) {
    const VRXgenconstr& g = d->genConstrs[indicators[static_cast<size_t>(k)]];
    for (int t = 0; t < g.count; ++t) extra.push_back(Extra{g.ind[t], nq + k, g.val[t]});
  }
  if (objs)
    for (int k = 0; k < objs->count; ++k)
      for (int j = 0; j < objs->items[k].size && j < n; ++j)
        if (objs->items[k].coeffs[j] != 0.0)
          extra.push_back(Extra{j, -1 - k, flip * objs->items[k].coeffs[j]});
  std::stable_sort(extra.data(), extra.data() + extra.size(),
                   [](const Extra& a, const Extra& b) { return a.col < b.col; });

  w.put("COLUMNS\n");
  bool inInt = false;
  size_t ex = 0;
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
    bool anyExtra = ex < extra.size() && extra[ex].col == j;
    // A column with no entry at all still needs a line to exist.
    if (d->obj[j] != 0.0 || (len == 0 && !anyExtra))
      w.put("    %-8s  OBJ       %s\n", name, w.num(d->obj[j]));
    for (int64_t p = beg; p < beg + len; ++p)
      w.put("    %-8s  %-8s  %s\n", name, w.con(d->rowInd[p], w.nameB), w.num(d->val[p]));
    for (; ex < extra.size() && extra[ex].col == j; ++ex) {
      const Extra& e = extra[ex];
      if (e.slot < 0) {
        char objRow[32];
        std::snprintf(objRow, sizeof objRow, "OBJ%d", -1 - e.slot);
        w.put("    %-8s  %-8s  %s\n", name, objRow, w.num(e.val));
      } else {
        const char* row = e.slot < nq ? qcName(e.slot) : genName(indicators[static_cast<size_t>(e.slot - nq)]);
        w.put("    %-8s  %-8s  %s\n", name, row, w.num(e.val));
      }
    }
  }
  if (inInt) w.put("    MARKER    %s                 %s\n", "'MARKER'", "'INTEND'");

  w.put("RHS\n");
  if (d->objCon != 0.0) w.put("    RHS1      OBJ       %s\n", w.num(-d->objCon));
  if (objs)
    for (int k = 0; k < objs->count; ++k)
      if (objs->items[k].constant != 0.0) {
        char objRow[32];
        std::snprintf(objRow, sizeof objRow, "OBJ%d", k);
        w.put("    RHS1      %-8s  %s\n", objRow, w.num(-flip * objs->items[k].constant));
      }
  for (int i = 0; i < m; ++i)
    if (d->rhs[i] != 0.0) w.put("    RHS1      %-8s  %s\n", w.con(i, w.nameA), w.num(d->rhs[i]));
  for (int q = 0; q < nq; ++q)
    if (d->qcRHS[q] != 0.0) w.put("    RHS1      %-8s  %s\n", qcName(q), w.num(d->qcRHS[q]));
  for (int k = 0; k < ni; ++k) {
    const VRXgenconstr& g = d->genConstrs[indicators[static_cast<size_t>(k)]];
    if (g.rhs != 0.0) w.put("    RHS1      %-8s  %s\n", genName(indicators[static_cast<size_t>(k)]), w.num(g.rhs));
  }

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
  for (int q = 0; q < nq; ++q) {
    w.put("QCMATRIX   %-8s\n", qcName(q));
    for (int64_t p = d->qcQuadBeg[q]; p < d->qcQuadBeg[q + 1]; ++p)
      w.put("    %-8s  %-8s  %s\n", w.var(d->qcRow[p], w.nameA), w.var(d->qcCol[p], w.nameB),
            w.num(d->qcVal[p]));
  }
  for (int c = 0; c < nc; ++c) {
    char row[32];
    std::snprintf(row, sizeof row, "cone%d", c);
    w.put("QCMATRIX   %-8s\n", row);
    for (int64_t p = d->coneBeg[c]; p < d->coneBeg[c + 1]; ++p)
      w.put("    %-8s  %-8s  %s\n", w.var(d->coneInd[p], w.nameA), w.var(d->coneInd[p], w.nameB),
            p == d->coneBeg[c] ? "-1" : "1");
  }
  if (ni > 0) {
    w.put("INDICATORS\n");
    for (int k = 0; k < ni; ++k) {
      int g = indicators[static_cast<size_t>(k)];
      w.put(" IF %-8s  %-8s  %d\n", genName(g), w.var(d->genConstrs[g].resultVar, w.nameA),
            d->genConstrs[g].binValue);
    }
  }
  if (d->numPWLObjVars > 0 && d->pwlBeg && d->pwlCount) {
    w.put("PWLOBJ\n");
    for (int j = 0; j < n; ++j)
      for (int k = 0; k < d->pwlCount[j]; ++k) {
        char xb[kNumBuf];
        w.put("    %-8s  %s  %s\n", w.var(j, w.nameA), formatNumber(d->pwlX[d->pwlBeg[j] + k], xb),
              w.num(d->pwlY[d->pwlBeg[j] + k]));
      }
  }
  if (d->numGenConstrs > ni) {
    static const char* const kTypes[] = {"MAX", "MIN", "ABS", "AND", "OR"};
    w.put("GENCONS\n");
    for (int g = 0; g < d->numGenConstrs; ++g) {
      const VRXgenconstr& gc = d->genConstrs[g];
      if (gc.type == VRX_GENCONSTR_INDICATOR) continue;
      w.put(" %s %s\n", kTypes[gc.type], genName(g));
      w.put("    %s\n", w.var(gc.resultVar, w.nameA));
      for (int k = 0; k < gc.count; ++k) w.put("    %s\n", w.var(gc.vars[k], w.nameA));
      bool finite = std::fabs(gc.constant) < kInf;
      if ((gc.type == VRX_GENCONSTR_MAX || gc.type == VRX_GENCONSTR_MIN) && finite)
        w.put("    %s\n", w.num(gc.constant));
    }
  }
  w.put("ENDATA\n");
  return w.err;
}

}  // namespace vrx
