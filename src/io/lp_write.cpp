// The LP writer: .lp with the model's names, .rlp with default names, .ilp
// with the members of an IIS only.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "env/envvec.h"
#include "io/lpfile.h"
#include "io/numfmt.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/namecheck.h"
#include "model/result.h"

namespace vrx {

namespace {

constexpr int kMaxLine = 75;
constexpr size_t kNameBuf = VRX_MAX_NAMELEN + 32;

const char* const kKeywordWords[] = {
    "minimize", "minimum",  "min",      "maximize", "maximum",   "max",   "subject",
    "such",     "st",       "s.t.",     "st.",      "lazy",      "cones", "bounds",
    "bound",    "binary",   "binaries", "bin",      "general",   "generals", "gen",
    "integer",  "integers", "semi-continuous",      "semis",     "semi",  "sos",
    "pwlobj",   "gencons",  "g.c.",     "end"};

const char* senseText(char s) { return s == '<' ? "<=" : (s == '>' ? ">=" : "="); }

struct Writer {
  VRXenv* env;
  Stream* s;
  const VRXmodel* model;
  const VRXmodeldata* d;
  bool rlp = false;
  const VRXresult* iis = nullptr;  // set for an .ilp
  int err = 0;
  int col = 0;
  char num[kNumBuf] = {};
  char num2[kNumBuf] = {};
  char bufA[kNameBuf] = {};
  char bufB[kNameBuf] = {};
  char piece[4 * kNameBuf + 4 * kNumBuf] = {};

  void write(const char* text, size_t len) {
    if (!err && len) err = streamWrite(s, text, len);
  }
  void text(const char* t) { write(t, std::strlen(t)); }
  // Starts a new line when the piece would carry the line past its limit;
  // a piece is never split.
  void put(const char* p) {
    size_t len = std::strlen(p);
    if (col + static_cast<int>(len) > kMaxLine && col > 2) {
      write("\n  ", 3);
      col = 2;
    }
    write(p, len);
    col += static_cast<int>(len);
  }
  // A blank and a name as one piece.
  void putName(const char* name) {
    size_t k = std::strlen(name);
    if (k + 2 > sizeof piece) k = sizeof piece - 2;
    piece[0] = ' ';
    std::memcpy(piece + 1, name, k);
    piece[k + 1] = '\0';
    put(piece);
  }
  void endLine() {
    write("\n", 1);
    col = 0;
  }
  template <class... A>
  void putf(const char* fmt, A... args) {
    std::snprintf(piece, sizeof piece, fmt, args...);
    put(piece);
  }
  template <class... A>
  void line(const char* fmt, A... args) {
    std::snprintf(piece, sizeof piece, fmt, args...);
    text(piece);
    col = 0;
  }
  const char* n1(double v) { return formatNumber(v, num); }
  const char* n2(double v) { return formatNumber(v, num2); }

  const char* var(int j, char* buf) {
    if (!rlp && d->varName && d->varName[j] && d->varName[j][0]) return d->varName[j];
    std::snprintf(buf, kNameBuf, "x%d", j);
    return buf;
  }
  const char* con(int i, char* buf) {
    if (!rlp && d->constrName && d->constrName[i] && d->constrName[i][0]) return d->constrName[i];
    std::snprintf(buf, kNameBuf, "c%d", i);
    return buf;
  }
  const char* qcon(int q, char* buf) {
    if (!rlp && d->qcName && d->qcName[q] && d->qcName[q][0]) return d->qcName[q];
    std::snprintf(buf, kNameBuf, "qc%d", q);
    return buf;
  }
  const char* gen(int g, char* buf) {
    const char* nm = d->genConstrs[g].name;
    if (!rlp && nm && nm[0]) return nm;
    std::snprintf(buf, kNameBuf, "GC%d", g);
    return buf;
  }

  // One term: " + 2 x", " - x", or for a first positive one " 2 x", " x".
  // A name that reads as a number always carries its coefficient, and one
  // that reads as a keyword never opens a line without its sign.
  void term(double c, const char* name, bool* first) {
    double a = std::fabs(c);
    bool showNum = a != 1.0 || lpNumberLike(name);
    if (*first && !(c < 0) && (showNum || !lpKeywordWord(name))) {
      if (showNum)
        putf(" %s %s", n1(a), name);
      else
        putf(" %s", name);
    } else {
      const char* sign = c < 0 ? "-" : "+";
      if (showNum)
        putf(" %s %s %s", sign, n1(a), name);
      else
        putf(" %s %s", sign, name);
    }
    *first = false;
  }
  // A quadratic term inside brackets: "x ^2" or "x * y".
  void qterm(double c, int i, int j, bool* first) {
    char nm[2 * kNameBuf + 8];
    if (i == j)
      std::snprintf(nm, sizeof nm, "%s ^2", var(i, bufA));
    else
      std::snprintf(nm, sizeof nm, "%s * %s", var(i, bufA), var(j, bufB));
    double a = std::fabs(c);
    const bool showNum = a != 1.0 || lpNumberLike(var(i, bufA));
    if (*first && !(c < 0)) {
      if (showNum)
        putf(" %s %s", n1(a), nm);
      else
        putf(" %s", nm);
    } else {
      const char* sign = c < 0 ? "-" : "+";
      if (showNum)
        putf(" %s %s %s", sign, n1(a), nm);
      else
        putf(" %s %s", sign, nm);
    }
    *first = false;
  }
  void rhs(char sense, double v) { putf(" %s %s", senseText(sense), n1(v)); }
};

}  // namespace

bool lpKeywordWord(const char* word) {
  for (const char* k : kKeywordWords)
    if (strcasecmp(word, k) == 0) return true;
  return false;
}

bool lpNumberLike(const char* t) {
  if (!t || !*t) return false;
  const char* p = t;
  if (*p == '+' || *p == '-') ++p;
  if (strcasecmp(p, "inf") == 0 || strcasecmp(p, "infinity") == 0) return true;
  // Only decimal forms: no nan, no hexadecimal.
  if (!((*p >= '0' && *p <= '9') || *p == '.')) return false;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) return false;
  char* end = nullptr;
  std::strtod(t, &end);
  return end && *end == '\0' && end != t;
}

// A name the reader would split, take for a symbol or keyword, or read as
// the objective constant or a piecewise-linear term.
bool lpNameUnsafe(const char* s, bool variable, bool numbersBreak) {
  if (!s || !*s) return false;  // written by its default name
  for (const char* p = s; *p; ++p)
    if (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n' || *p == ':' || *p == '^' || *p == '\\')
      return true;
  static const char* const kSymbols[] = {"<", "<=", "=<", ">", ">=", "=>", "=", "==", "[", "]", "->",
                                         "*", "/", "/2", "+", "-", "(", ")", ","};
  for (const char* sym : kSymbols)
    if (std::strcmp(s, sym) == 0) return true;
  if (strncasecmp(s, "__pwl(", 6) == 0) return true;
  if (std::strncmp(s, "Constant", 8) == 0) {
    const char* p = s + 8;
    while (*p >= '0' && *p <= '9') ++p;
    if (*p == '\0') return true;
  }
  // A list of names may put a variable at the start of a line, and an
  // operand of MIN or MAX that reads as a number is a constant.
  return variable && (lpKeywordWord(s) || (numbersBreak && lpNumberLike(s)));
}

bool lpHasIIS(const VRXmodel* model) {
  const VRXresult* r = model->result;
  return r && r->iisMinimal >= 0 && r->iisConstr && r->iisLB && r->iisUB;
}

int lpWrite(VRXmodel* model, Stream* s, const char* filename) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  const size_t stem = stemLength(filename);
  auto hasSuffix = [&](const char* suf) {
    size_t k = std::strlen(suf);
    return stem >= k && strncasecmp(filename + stem - k, suf, k) == 0;
  };
  Writer w{env, s, model, d};
  w.rlp = hasSuffix(".rlp");
  if (hasSuffix(".ilp")) {
    if (!lpHasIIS(model))
      return raise(env, VRX_ERROR_DATA_NOT_AVAILABLE, true, "No IIS available for current model");
    w.iis = model->result;
  }
  if (!w.rlp) {
    bool unsafe = nameCheck(env, d);
    bool minMax = false;
    for (int g = 0; g < d->numGenConstrs; ++g)
      minMax = minMax || d->genConstrs[g].type == VRX_GENCONSTR_MAX || d->genConstrs[g].type == VRX_GENCONSTR_MIN;
    for (int j = 0; j < n && !unsafe && d->varName; ++j) unsafe = lpNameUnsafe(d->varName[j], true, minMax);
    for (int i = 0; i < m && !unsafe && d->constrName; ++i) unsafe = lpNameUnsafe(d->constrName[i], false, false);
    for (int q = 0; q < d->numQConstrs && !unsafe && d->qcName; ++q)
      unsafe = lpNameUnsafe(d->qcName[q], false, false);
    for (int g = 0; g < d->numGenConstrs && !unsafe; ++g)
      unsafe = lpNameUnsafe(d->genConstrs[g].name, false, false);
    const VRXobjlist* ol = model->objList;
    for (int k = 0; ol && ol->count > 1 && k < ol->count && !unsafe; ++k)
      unsafe = lpNameUnsafe(ol->items[k].name, false, false);
    if (unsafe) log(env, "Warning: to let Vornix read it back, use rlp format\n");
  }

  const VRXresult* iis = w.iis;
  const double sense = d->modelSense < 0 ? -1.0 : 1.0;
  // The caller's sign of a stored value; a zero shows without a sign.
  auto caller = [&](double v) { return v == 0.0 ? 0.0 : sense * v; };
  auto rowIn = [&](int i) { return !iis || iis->iisConstr[i] != 0; };
  auto qcIn = [&](int q) { return !iis || (iis->iisQConstr && iis->iisQConstr[q] != 0); };
  auto genIn = [&](int g) { return !iis || (iis->iisGenConstr && iis->iisGenConstr[g] != 0); };
  auto sosIn = [&](int k) { return !iis || (iis->iisSOS && iis->iisSOS[k] != 0); };

  // Row-wise copy of the matrix.
  EnvVec<int64_t> rbeg(env);
  EnvVec<int> rind(env);
  EnvVec<double> rval(env);
  rbeg.resize(static_cast<size_t>(m) + 1, 0);
  for (int j = 0; j < n; ++j)
    for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p)
      ++rbeg[static_cast<size_t>(d->rowInd[p]) + 1];
  for (int i = 0; i < m; ++i) rbeg[static_cast<size_t>(i) + 1] += rbeg[static_cast<size_t>(i)];
  rind.resize(static_cast<size_t>(rbeg[static_cast<size_t>(m)]));
  rval.resize(rind.size());
  {
    EnvVec<int64_t> fill(env);
    fill.resize(static_cast<size_t>(m) + 1, 0);
    for (int i = 0; i <= m; ++i) fill[static_cast<size_t>(i)] = rbeg[static_cast<size_t>(i)];
    for (int j = 0; j < n; ++j)
      for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p) {
        size_t at = static_cast<size_t>(fill[static_cast<size_t>(d->rowInd[p])]++);
        rind[at] = j;
        rval[at] = d->val[p];
      }
  }

  // Variables an .ilp shows: those of its members.
  EnvVec<char> used(env);
  if (iis) {
    used.resize(static_cast<size_t>(n), 0);
    for (int i = 0; i < m; ++i)
      if (rowIn(i))
        for (int64_t p = rbeg[static_cast<size_t>(i)]; p < rbeg[static_cast<size_t>(i) + 1]; ++p)
          used[static_cast<size_t>(rind[static_cast<size_t>(p)])] = 1;
    for (int j = 0; j < n; ++j)
      if (iis->iisLB[j] || iis->iisUB[j]) used[static_cast<size_t>(j)] = 1;
    for (int q = 0; q < d->numQConstrs; ++q)
      if (qcIn(q)) {
        for (int64_t p = d->qcLinBeg[q]; p < d->qcLinBeg[q + 1]; ++p) used[static_cast<size_t>(d->qcLinInd[p])] = 1;
        for (int64_t p = d->qcQuadBeg[q]; p < d->qcQuadBeg[q + 1]; ++p)
          used[static_cast<size_t>(d->qcRow[p])] = used[static_cast<size_t>(d->qcCol[p])] = 1;
      }
    for (int g = 0; g < d->numGenConstrs; ++g)
      if (genIn(g)) {
        const VRXgenconstr& gc = d->genConstrs[g];
        used[static_cast<size_t>(gc.resultVar)] = 1;
        for (int k = 0; k < gc.count; ++k)
          used[static_cast<size_t>(gc.type == VRX_GENCONSTR_INDICATOR ? gc.ind[k] : gc.vars[k])] = 1;
      }
    for (int k = 0; k < d->numSOS; ++k)
      if (sosIn(k))
        for (int64_t p = d->sosBeg[k]; p < d->sosBeg[k + 1]; ++p) used[static_cast<size_t>(d->sosInd[p])] = 1;
  }

  w.line("\\ Model %s\n", d->modelName ? d->modelName : "");
  w.text("\\ LP format - for model browsing. Use MPS format to capture full model detail.\n");

  // Objective.
  const VRXobjlist* objs = model->objList;
  const bool multi = !iis && objs && objs->count > 1;
  bool anyConstant = false;
  if (multi) {
    w.line("%s %s\n", sense < 0 ? "Maximize" : "Minimize", "_multi-objectives");
    for (int k = 0; k < objs->count && !w.err; ++k) {
      const VRXobjective& o = objs->items[k];
      if (o.name && o.name[0] && !(w.rlp && lpNameUnsafe(o.name, false, false)))
        w.line("  %s: ", o.name);
      else
        w.line("  OBJ%d: ", k);
      w.line("Priority=%d ", o.priority);
      // A maximisation keeps its weights negated, as the reader expects.
      w.line("Weight=%s ", w.n1(sense < 0 ? -o.weight : o.weight));
      w.line("AbsTol=%s ", w.n1(o.absTol));
      w.line("RelTol=%s\n", w.n1(o.relTol));
      w.text("  ");
      w.col = 2;
      bool first = true;
      for (int j = 0; j < o.size && j < n; ++j)
        if (o.coeffs[j] != 0.0) w.term(o.coeffs[j], w.var(j, w.bufA), &first);
      // Columns found nowhere else still need a mention to exist.
      if (k == 0)
        for (int j = 0; j < n; ++j)
          if (d->colLen[j] == 0 && (j >= o.size || o.coeffs[j] == 0.0)) {
            w.putf(" + 0 %s", w.var(j, w.bufA));
            first = false;
          }
      if (o.constant != 0.0) {
        char cn[32];
        std::snprintf(cn, sizeof cn, "Constant%d", k);
        w.term(o.constant, cn, &first);
        anyConstant = true;
      }
      w.endLine();
    }
  } else {
    w.text(sense < 0 ? "Maximize\n" : "Minimize\n");
    bool first = true;
    bool lineOpen = false;
    auto open = [&] {
      if (!lineOpen) {
        w.text("  ");
        w.col = 2;
        lineOpen = true;
      }
    };
    if (!iis) {
      for (int j = 0; j < n && !w.err; ++j) {
        const bool pwl = d->pwlBeg && d->pwlCount[j] > 0;
        if (d->obj[j] != 0.0 && !pwl) {
          open();
          w.term(caller(d->obj[j]), w.var(j, w.bufA), &first);
        } else if (d->colLen[j] == 0 && !pwl) {
          open();
          w.putf(first ? " 0 %s" : " + 0 %s", w.var(j, w.bufA));
          first = false;
        }
      }
      if (d->numQNZs > 0) {
        open();
        w.put(first ? " [" : " + [");
        bool qfirst = true;
        // The store keeps 2 a sense for a term a x y: the file shows 2 a.
        for (int k = 0; k < d->numQNZs; ++k) w.qterm(caller(d->qVal[k]), d->qRow[k], d->qCol[k], &qfirst);
        w.put(" ] / 2");
        first = false;
      }
      if (d->pwlBeg)
        for (int j = 0; j < n; ++j)
          if (d->pwlCount[j] > 0) {
            open();
            w.putf(first ? " __pwl(%s)" : " + __pwl(%s)", w.var(j, w.bufA));
            first = false;
          }
      if (d->objCon != 0.0) {
        open();
        w.term(caller(d->objCon), "Constant", &first);
        anyConstant = true;
      }
    }
    if (lineOpen) w.endLine();
  }

  // Constraints; lazy rows wait for their own sections.
  auto lazyOf = [&](int i) { return model->lazyFlag && !iis ? model->lazyFlag[i] : 0; };
  auto writeRow = [&](int i) {
    w.col = 0;
    w.putf(" %s:", w.con(i, w.bufA));
    bool first = true;
    for (int64_t p = rbeg[static_cast<size_t>(i)]; p < rbeg[static_cast<size_t>(i) + 1]; ++p)
      w.term(rval[static_cast<size_t>(p)], w.var(rind[static_cast<size_t>(p)], w.bufB), &first);
    w.rhs(d->sense[i], d->rhs[i]);
    w.endLine();
  };
  w.text("Subject To\n");
  for (int i = 0; i < m && !w.err; ++i)
    if (rowIn(i) && lazyOf(i) <= 0) writeRow(i);
  for (int q = 0; q < d->numQConstrs && !w.err; ++q) {
    if (!qcIn(q)) continue;
    w.col = 0;
    w.putf(" %s:", w.qcon(q, w.bufA));
    bool first = true;
    for (int64_t p = d->qcLinBeg[q]; p < d->qcLinBeg[q + 1]; ++p)
      w.term(d->qcLinVal[p], w.var(d->qcLinInd[p], w.bufB), &first);
    if (d->qcQuadBeg[q + 1] > d->qcQuadBeg[q]) {
      w.put(first ? " [" : " + [");
      bool qfirst = true;
      for (int64_t p = d->qcQuadBeg[q]; p < d->qcQuadBeg[q + 1]; ++p)
        w.qterm(d->qcVal[p], d->qcRow[p], d->qcCol[p], &qfirst);
      w.put(" ]");
    }
    w.rhs(d->qcSense[q], d->qcRHS[q]);
    w.endLine();
  }
  for (int g = 0; g < d->numGenConstrs && !w.err; ++g) {
    const VRXgenconstr& gc = d->genConstrs[g];
    if (gc.type != VRX_GENCONSTR_INDICATOR || !genIn(g)) continue;
    w.col = 0;
    w.putf(" %s:", w.gen(g, w.bufA));
    w.putf(" %s = %d ->", w.var(gc.resultVar, w.bufB), gc.binValue);
    bool first = true;
    for (int k = 0; k < gc.count; ++k) w.term(gc.val[k], w.var(gc.ind[k], w.bufB), &first);
    w.rhs(gc.sense, gc.rhs);
    w.endLine();
  }
  if (!iis)
    for (int c = 0; c < d->numCones && !w.err; ++c) {
      w.col = 0;
      w.putf(" cone%d:", c);
      for (int64_t p = d->coneBeg[c]; p < d->coneBeg[c + 1]; ++p)
        w.putf(p == d->coneBeg[c] ? " [ - %s ^2" : " + %s ^2", w.var(d->coneInd[p], w.bufA));
      w.put(" ] <= 0");
      w.endLine();
    }

  if (model->lazyFlag && !iis) {
    bool present[4] = {false, false, false, false};
    for (int i = 0; i < m; ++i) {
      int v = model->lazyFlag[i];
      if (v > 0) present[v > 3 ? 3 : v] = true;
    }
    const bool onlyOnes = present[1] && !present[2] && !present[3];
    for (int v = 1; v <= 3; ++v) {
      if (!present[v]) continue;
      if (onlyOnes)
        w.text("Lazy Constraints\n");
      else
        w.line("Lazy Constraints %d\n", v);
      for (int i = 0; i < m && !w.err; ++i) {
        int lv = model->lazyFlag[i];
        if (lv > 3) lv = 3;
        if (lv == v) writeRow(i);
      }
    }
  }

  // Bounds. A name the reader would take for a keyword or a number stands
  // between two values, where only a name can be.
  w.text("Bounds\n");
  for (int j = 0; j < n && !w.err; ++j) {
    if (iis && !used[static_cast<size_t>(j)]) continue;
    double lb = d->lb[j], ub = d->ub[j];
    if (iis) {
      if (!iis->iisLB[j]) lb = -kInf;
      if (!iis->iisUB[j]) ub = kInf;
    }
    const char t = d->vtype[j];
    if (!iis && t == 'B' && lb == 0.0 && ub == 1.0) continue;
    if (lb == 0.0 && ub >= kInf) continue;
    const char* nm = w.var(j, w.bufA);
    const bool between = lpKeywordWord(nm) || lpNumberLike(nm);
    const bool lbInf = lb <= -kInf, ubInf = ub >= kInf;
    if (between) {
      w.line(" %s <= %s <= %s\n", lbInf ? "-infinity" : w.n1(lb), nm, ubInf ? "+infinity" : w.n2(ub));
    } else if (lbInf && ubInf) {
      w.line(" %s free\n", nm);
    } else if (lb == ub) {
      w.line(" %s = %s\n", nm, w.n1(lb));
    } else if (lbInf) {
      w.line(" -infinity <= %s <= %s\n", nm, w.n1(ub));
    } else if (ubInf) {
      w.line(" %s >= %s\n", nm, w.n1(lb));
    } else if (lb == 0.0) {
      w.line(" %s <= %s\n", nm, w.n1(ub));
    } else {
      w.line(" %s <= %s <= %s\n", w.n1(lb), nm, w.n2(ub));
    }
  }
  if (anyConstant) {
    if (multi) {
      for (int k = 0; k < objs->count; ++k)
        if (objs->items[k].constant != 0.0) w.line(" Constant%d = 1\n", k);
    } else {
      w.text(" Constant = 1\n");
    }
  }

  // Types: names in wrapped lines.
  auto typeSection = [&](const char* head, bool (*pick)(char), bool ilpAll) {
    bool any = false;
    for (int j = 0; j < n && !w.err; ++j) {
      if (iis && !used[static_cast<size_t>(j)]) continue;
      const char t = d->vtype[j];
      if (!(pick(t) || (iis && ilpAll && t == 'B'))) continue;
      if (!any) {
        w.text(head);
        w.col = 0;
        any = true;
      }
      w.putName(w.var(j, w.bufA));
    }
    if (any) w.endLine();
  };
  if (!iis) typeSection("Binaries\n", [](char t) { return t == 'B'; }, false);
  // An .ilp shows binaries as general integers: their bounds are the IIS's.
  typeSection("Generals\n", [](char t) { return t == 'I' || t == 'N'; }, true);
  if (!iis) typeSection("Semi-continuous\n", [](char t) { return t == 'S' || t == 'N'; }, false);

  bool anySos = false;
  for (int k = 0; k < d->numSOS && !w.err; ++k) {
    if (!sosIn(k)) continue;
    if (!anySos) w.text("SOS\n");
    anySos = true;
    w.col = 0;
    w.putf(" s%d: S%d ::", k, d->sosType[k]);
    for (int64_t p = d->sosBeg[k]; p < d->sosBeg[k + 1]; ++p)
      w.putf(" %s:%g", w.var(d->sosInd[p], w.bufA), d->sosWeight[p]);
    w.endLine();
  }

  if (!iis && d->pwlBeg && d->numPWLObjVars > 0) {
    w.text("PWLObj\n");
    for (int j = 0; j < n && !w.err; ++j) {
      const int cnt = d->pwlCount[j];
      if (cnt <= 0) continue;
      w.col = 0;
      w.putf(" %s: ", w.var(j, w.bufA));
      const int64_t b = d->pwlBeg[j];
      for (int k = 0; k < cnt; ++k)
        w.putf(k + 1 < cnt ? "(%s, %s) " : "(%s, %s)", w.n1(d->pwlX[b + k]), w.n2(caller(d->pwlY[b + k])));
      w.endLine();
    }
  }

  bool anyGen = false;
  for (int g = 0; g < d->numGenConstrs && !w.err; ++g) {
    const VRXgenconstr& gc = d->genConstrs[g];
    if (gc.type == VRX_GENCONSTR_INDICATOR || !genIn(g)) continue;
    if (!anyGen) w.text("General Constraints\n");
    anyGen = true;
    static const char* const kType[] = {"MAX", "MIN", "ABS", "AND", "OR"};
    w.col = 0;
    w.putf(" %s:", w.gen(g, w.bufA));
    w.putf(" %s = %s (", w.var(gc.resultVar, w.bufB), kType[gc.type]);
    bool first = true;
    for (int k = 0; k < gc.count; ++k) {
      w.putf(first ? " %s" : " , %s", w.var(gc.vars[k], w.bufB));
      first = false;
    }
    if ((gc.type == VRX_GENCONSTR_MAX || gc.type == VRX_GENCONSTR_MIN) && std::fabs(gc.constant) < kInf) {
      w.putf(first ? " %s" : " , %s", w.n1(gc.constant));
      first = false;
    }
    w.put(" )");
    w.endLine();
  }
  w.text("End\n");
  return w.err;
}

}  // namespace vrx
