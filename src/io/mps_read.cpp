// The MPS reader: free and fixed form, told apart line by line.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "env/envvec.h"
#include "env/nameindex.h"
#include "io/mps.h"

namespace vrx {

namespace {

enum Section {
  kNone,
  kName,
  kObjSense,
  kObjName,
  kRows,
  kColumns,
  kRhs,
  kRanges,
  kBounds,
  kSos,
  kQuadUpper,  // QUADOBJ: the upper triangle
  kQuadFull,   // QMATRIX, QSECTION: the whole matrix
  kLazy,       // LAZYCONS: rows like ROWS, lazy
  kQCMatrix,   // QCMATRIX: terms of one quadratic constraint
  kIndicators,
  kGencons,
  kPwlObj,
  kEnd
};

// Row codes in the name index besides constraint numbers.
constexpr int kObjRow = -2;
constexpr int kDroppedRow = -3;
constexpr int kMaxTokens = 8;
constexpr int kLineMax = 1 << 20;
constexpr size_t kShownMax = 256;

enum BoundType { bLO, bUP, bFX, bFR, bMI, bPL, bBV, bLI, bUI, bSC, bSI, bCount };
const char* const kBoundNames[bCount] = {"LO", "UP", "FX", "FR", "MI", "PL",
                                         "BV", "LI", "UI", "SC", "SI"};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Numbers beyond the system's infinity, overflows included, read as +-1e100,
// as in LP files; NaN and hexadecimal texts are no numbers.
bool clipped(double* v) {
  if (*v > kInf) *v = kInf;
  if (*v < -kInf) *v = -kInf;
  return true;
}

bool parseDouble(const char* t, double* v) {
  if (!t || !*t) return false;
  // Decimal forms only: no hexadecimal.
  const char* digits = (*t == '+' || *t == '-') ? t + 1 : t;
  if (digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) return false;
  char* end = nullptr;
  *v = std::strtod(t, &end);
  if (std::isnan(*v)) return false;
  if (end && *end == '\0' && end != t) return clipped(v);
  // Fortran exponents: 1.5D+03
  char buf[128];
  size_t n = std::strlen(t);
  if (n >= sizeof buf) return false;
  std::memcpy(buf, t, n + 1);
  bool changed = false;
  for (char* p = buf; *p; ++p)
    if (*p == 'D' || *p == 'd') {
      *p = 'E';
      changed = true;
    }
  if (!changed) return false;
  *v = std::strtod(buf, &end);
  return end && *end == '\0' && end != buf && !std::isnan(*v) && clipped(v);
}

struct Triplet {
  int col;
  int row;
  double val;
};

struct QTerm {
  int i;
  int j;
  double v;
};

struct SosMember {
  int set;
  int col;
  double weight;
};

struct ObjRowInfo {
  int64_t name;
  int priority;
  double weight, absTol, relTol;
  double constant;
};

struct QcItem {
  int row;
  int64_t beg;
};

struct IndItem {
  int row;
  int var;
  int val;
};

struct GenItem {
  int type;
  int64_t name;
  int line;
  int64_t beg;
  int count;
  double constant;
  int res;
  bool anyConstant;
};

struct PwlPt {
  int var;
  double x, y;
};

// Row codes of the objectives of a multi-objective file: kObjRowBase - k.
constexpr int kObjRowBase = -10;

const char* const kGenTypeNames[] = {"MAX", "MIN", "ABS", "AND", "OR"};

struct Reader {
  VRXenv* env;
  Stream* s;
  const char* file;
  int lineNo = 0;
  char* line = nullptr;   // the current line, cut into tokens
  char* text = nullptr;   // the current line as read, for messages
  char* fixedBuf = nullptr;
  char* tok[kMaxTokens];
  int ntok = 0;

  NameIndex* rowIdx = nullptr;
  NameIndex* colIdx = nullptr;
  EnvVec<char> arena;
  EnvVec<int64_t> rowName, colName;
  EnvVec<char> sense;
  EnvVec<double> rhs, range;
  EnvVec<unsigned char> rhsSeen, rangeSeen;
  EnvVec<double> obj, lb, ub;
  EnvVec<char> vtype;
  EnvVec<unsigned short> boundSeen;
  EnvVec<Triplet> trip;
  EnvVec<QTerm> quad;
  EnvVec<int> sosType;
  EnvVec<SosMember> sosMem;
  EnvVec<int> rowLazy;
  EnvVec<int> lazyValues;  // the values of the LAZYCONS sections seen
  int curLazy = 0;
  EnvVec<ObjRowInfo> objRows;
  EnvVec<Triplet> objTrip;  // col, objective number, value
  int mainObj = -1;         // the objective number that is also the model's objective
  EnvVec<QcItem> qcs;
  EnvVec<QTerm> qcTerms;
  EnvVec<IndItem> inds;
  bool sawIndicators = false;
  EnvVec<GenItem> gens;
  EnvVec<int> genVars;
  EnvVec<PwlPt> pwl;
  EnvVec<unsigned char> pwlClosed;  // per column: its pieces ended
  int lastPwlVar = -1;
  int64_t modelName = -1;
  int64_t objName = -1;  // OBJNAME
  double objCon = 0;
  int objSense = 1;
  bool haveObj = false;
  bool sawRows = false, sawColumns = false, sawEnd = false, sawQuad = false;
  bool warnedSmall = false, warnedSmallQ = false, warnedExtraN = false;
  bool inInt = false, inSos = false;
  bool quadFull = false;
  bool reentered = false;
  int curCol = -1;
  int oldSosSet = -1;
  int oldSosCount = 0;  // members of the open old-form set
  EnvVec<unsigned char> qcRowSeen;  // per row: it has a QCMATRIX block

  explicit Reader(VRXenv* e)
      : env(e), arena(e), rowName(e), colName(e), sense(e), rhs(e), range(e), rhsSeen(e),
        rangeSeen(e), obj(e), lb(e), ub(e), vtype(e), boundSeen(e), trip(e), quad(e),
        sosType(e), sosMem(e), rowLazy(e), lazyValues(e), objRows(e), objTrip(e), qcs(e),
        qcTerms(e), inds(e), gens(e), genVars(e), pwl(e), pwlClosed(e), qcRowSeen(e) {}
  ~Reader() {
    nameIndexFree(env, rowIdx);
    nameIndexFree(env, colIdx);
    envFree(env, line);
    envFree(env, text);
    envFree(env, fixedBuf);
  }

  int64_t store(const char* name) {
    int64_t at = static_cast<int64_t>(arena.size());
    size_t n = std::strlen(name) + 1;
    arena.reserve(arena.size() + n);
    for (size_t i = 0; i < n; ++i) arena.push_back(name[i]);
    return at;
  }
  const char* nameAt(int64_t off) const { return arena.data() + off; }

  int numRows() const { return static_cast<int>(sense.size()); }
  int numCols() const { return static_cast<int>(obj.size()); }

  // The line as messages show it: a very long line is cut short.
  const char* shown() {
    if (std::strlen(text) > kShownMax) std::memcpy(text + kShownMax - 3, "...", 4);
    return text;
  }
  int lineError() {
    log(env, "Error at line %d:\n%s\n", lineNo, shown());
    return raise(env, VRX_ERROR_FILE_READ, true, "MPS read error at line %d:\n%s\n", lineNo, text);
  }
  // A failure with its own log line and stored text.
  int fail(const char* logText, const char* errText) {
    log(env, "%s", logText);
    return raise(env, VRX_ERROR_FILE_READ, true, "%s", errText);
  }

  void tokenize() {
    ntok = 0;
    char* p = line;
    while (*p && ntok < kMaxTokens) {
      while (isBlank(*p)) ++p;
      if (!*p) break;
      tok[ntok++] = p;
      while (*p && !isBlank(*p)) ++p;
      if (*p) *p++ = '\0';
    }
    if (*p) {
      while (isBlank(*p)) ++p;
      if (*p) ntok = kMaxTokens + 1;  // too many fields for any section
    }
  }

  // Cuts the classic fixed fields out of the raw line; absent fields are null.
  void fixedFields(char* f[6]) {
    static const int start[6] = {1, 4, 14, 24, 39, 49};
    static const int width[6] = {2, 8, 8, 12, 8, 12};
    size_t len = std::strlen(text);
    char* out = fixedBuf;
    for (int k = 0; k < 6; ++k) {
      f[k] = nullptr;
      if (static_cast<size_t>(start[k]) >= len) continue;
      size_t w = static_cast<size_t>(width[k]);
      if (start[k] + w > len) w = len - static_cast<size_t>(start[k]);
      const char* src = text + start[k];
      // Numbers may sit anywhere in their field; names keep inner blanks.
      size_t a = 0, b = w;
      while (a < b && isBlank(src[a]) && (k == 3 || k == 5 || k == 0)) ++a;
      while (b > a && (isBlank(src[b - 1]) || src[b - 1] == '\r' || src[b - 1] == '\n')) --b;
      if (b == a) continue;
      std::memcpy(out, src + a, b - a);
      out[b - a] = '\0';
      f[k] = out;
      out += b - a + 1;
    }
  }

  int findRow(const char* name) const { return nameIndexFind(rowIdx, name); }
  int findCol(const char* name) const { return nameIndexFind(colIdx, name); }

  int addCol(const char* name) {
    int j = numCols();
    if (j >= 2000000000) return -1;
    if (nameIndexInsert(env, colIdx, name, j)) throw std::bad_alloc();
    colName.push_back(store(name));
    obj.push_back(0.0);
    lb.push_back(0.0);
    ub.push_back(kInf);
    vtype.push_back(inInt ? 'I' : 'C');
    boundSeen.push_back(0);
    if (inSos && oldSosSet >= 0) sosMem.push_back(SosMember{oldSosSet, j, static_cast<double>(++oldSosCount)});
    return j;
  }

  // --- sections ---

  int rowsLine() {
    const char* type = nullptr;
    const char* name = nullptr;
    char* f[6];
    bool isN = ntok >= 2 && (tok[0][0] == 'N' || tok[0][0] == 'n') && tok[0][1] == '\0';
    double probe = 0;
    // Extra fields on an N row are the numbers of an objective of several, and
    // otherwise the line is in the fixed form with blanks inside the name.
    bool objNumbers = isN && ntok > 2 && ntok <= 6 && parseDouble(tok[2], &probe);
    if (std::strlen(tok[0]) == 1 && (ntok == 2 || objNumbers)) {
      type = tok[0];
      name = tok[1];
    } else {
      fixedFields(f);
      type = f[0];
      name = f[1];
    }
    if (!type || !name || std::strlen(type) != 1) return lineError();
    char t = static_cast<char>(std::toupper(static_cast<unsigned char>(type[0])));
    if (t == 'N') {
      if (objNumbers) {
        // An objective of several: priority, weight, absolute and relative tolerance.
        ObjRowInfo o{store(name), 0, 1.0, 0.0, 0.0, 0.0};
        if (ntok != 6 || std::sscanf(tok[2], "%d", &o.priority) != 1 ||
            !parseDouble(tok[3], &o.weight) || !parseDouble(tok[4], &o.absTol) ||
            !parseDouble(tok[5], &o.relTol))
          return fail("Missing priority, weight, absolute or relative tolerance in multi-objective line\n",
                      "Missing priority, weight, absolute or relative tolerance in multi-objective line\n");
        int k = static_cast<int>(objRows.size());
        objRows.push_back(o);
        if (!haveObj) {
          haveObj = true;
          mainObj = k;
        }
        if (nameIndexInsert(env, rowIdx, name, kObjRowBase - k)) throw std::bad_alloc();
        return 0;
      }
      bool isObj = !haveObj && (objName < 0 || std::strcmp(nameAt(objName), name) == 0);
      if (isObj) {
        haveObj = true;
        if (nameIndexInsert(env, rowIdx, name, kObjRow)) throw std::bad_alloc();
      } else {
        if (objName < 0 && !warnedExtraN) {
          log(env, "Warning: more than one unconstrained row,\n");
          log(env, "         using the first one as the objective.\n");
          warnedExtraN = true;
        }
        if (nameIndexInsert(env, rowIdx, name, kDroppedRow)) throw std::bad_alloc();
      }
      return 0;
    }
    char sn;
    switch (t) {
      case 'L': sn = '<'; break;
      case 'G': sn = '>'; break;
      case 'E': sn = '='; break;
      default: return lineError();
    }
    if (numRows() >= 2000000000) {
      log(env, "Warning: number of constraints exceeds two billion\n");
      return fail("MPS reader: number of constraints exceeds two billion\n",
                  "MPS reader: number of constraints exceeds two billion\n");
    }
    if (findRow(name) != -1) {
      log(env, "Warning: duplicate row name %s ignored.\n", name);
      return 0;
    }
    if (nameIndexInsert(env, rowIdx, name, numRows())) throw std::bad_alloc();
    rowName.push_back(store(name));
    sense.push_back(sn);
    rhs.push_back(0.0);
    range.push_back(0.0);
    rhsSeen.push_back(0);
    rangeSeen.push_back(0);
    rowLazy.push_back(curLazy);
    return 0;
  }

  void entry(int col, const char* rowNameText, double v) {
    int r = findRow(rowNameText);
    if (r == -1) {
      log(env, "Warning: row name %s in column section at line %d not defined.\n", rowNameText,
          lineNo);
      return;
    }
    if (r == kDroppedRow) return;
    if (r <= kObjRowBase) {
      int k = kObjRowBase - r;
      objTrip.push_back(Triplet{col, k, v});
      if (k == mainObj) obj[static_cast<size_t>(col)] += v;
      return;
    }
    if (std::fabs(v) < env->par.VORN_PAR_ZERO) {
      if (!warnedSmall) {
        log(env, "Warning: mps file contains small (< %g) coefficients, ignored\n",
            env->par.VORN_PAR_ZERO);
        warnedSmall = true;
      }
      return;
    }
    if (r == kObjRow) {
      obj[static_cast<size_t>(col)] += v;
      return;
    }
    trip.push_back(Triplet{col, r, v});
  }

  int markerLine(const char* kind) {
    auto is = [&](const char* k) { return kind && std::strcmp(kind, k) == 0; };
    if (is("'INTORG'")) {
      inInt = true;
    } else if (is("'INTEND'")) {
      inInt = false;
    } else if (is("'SOSORG'")) {
      inSos = true;
      int type = (tok[0][0] == 'S' && tok[0][1] == '2') ? 2 : 1;
      oldSosSet = static_cast<int>(sosType.size());
      oldSosCount = 0;
      sosType.push_back(type);
    } else if (is("'SOSEND'")) {
      inSos = false;
      oldSosSet = -1;
    } else {
      log(env, "Warning: marker at line %d is wrong.\n", lineNo);
    }
    return 0;
  }

  int columnsLine() {
    sawColumns = true;
    if (ntok == 3 && std::strcmp(tok[1], "'MARKER'") == 0) return markerLine(tok[2]);
    const char* name = nullptr;
    const char* r1 = nullptr;
    const char* r2 = nullptr;
    double v1 = 0, v2 = 0;
    bool ok = false;
    if ((ntok == 3 || ntok == 5) && parseDouble(tok[2], &v1) &&
        (ntok == 3 || parseDouble(tok[4], &v2))) {
      name = tok[0];
      r1 = tok[1];
      r2 = ntok == 5 ? tok[3] : nullptr;
      ok = true;
    } else {
      char* f[6];
      fixedFields(f);
      if (f[2] && std::strcmp(f[2], "'MARKER'") == 0) {
        char* mk = f[4] ? f[4] : f[3];
        return markerLine(mk);
      }
      if (f[1] && f[2] && parseDouble(f[3], &v1) && (!f[4] || parseDouble(f[5], &v2))) {
        name = f[1];
        r1 = f[2];
        r2 = f[4];
        ok = true;
      }
    }
    if (!ok) {
      if (ntok > 5) return fail("Error: not free format mps file.\n", "MPS reader: not free format\n");
      return lineError();
    }
    if (curCol < 0 || std::strcmp(nameAt(colName[static_cast<size_t>(curCol)]), name) != 0) {
      int j = findCol(name);
      if (j >= 0) {
        reentered = true;
      } else {
        j = addCol(name);
        if (j < 0) {
          log(env, "Warning: number of variables exceeds two billion\n");
          return fail("MPS reader: number of variables exceeds two billion\n",
                      "MPS reader: number of variables exceeds two billion\n");
        }
      }
      curCol = j;
    }
    entry(curCol, r1, v1);
    if (r2) entry(curCol, r2, v2);
    return 0;
  }

  void rhsEntry(const char* row, double v, bool isRange) {
    int r = findRow(row);
    if (r <= kObjRowBase) {
      if (isRange) {
        log(env, "Warning: range row %s for objective isn't supported.\n", row);
      } else {
        int k = kObjRowBase - r;
        objRows[static_cast<size_t>(k)].constant = -v;
        if (k == mainObj) objCon = -v;
      }
      return;
    }
    if (isRange) {
      if (r == -1 || r == kDroppedRow) {
        log(env, "Warning: range row %s isn't defined in row section.\n", row);
        return;
      }
      if (r == kObjRow) {
        log(env, "Warning: range row %s for objective isn't supported.\n", row);
        return;
      }
      if (rangeSeen[static_cast<size_t>(r)]) log(env, "Warning: duplicate range row %s.\n", row);
      rangeSeen[static_cast<size_t>(r)] = 1;
      range[static_cast<size_t>(r)] = v;
      return;
    }
    if (r == -1 || r == kDroppedRow) {
      log(env, "Warning: row name %s in rhs section not defined.\n", row);
      return;
    }
    if (r == kObjRow) {
      objCon = -v;
      return;
    }
    if (rhsSeen[static_cast<size_t>(r)]) log(env, "Warning: duplicate row %s in rhs section.\n", row);
    rhsSeen[static_cast<size_t>(r)] = 1;
    rhs[static_cast<size_t>(r)] = v;
  }

  int rhsLine(bool isRange) {
    double v1 = 0, v2 = 0;
    const char* r1 = nullptr;
    const char* r2 = nullptr;
    bool ok = false;
    // Odd counts carry the set name first; even counts leave it out.
    int first = (ntok == 3 || ntok == 5) ? 1 : 0;
    if (ntok >= 2 && ntok <= 5 && parseDouble(tok[first + 1], &v1) &&
        (ntok - first == 2 || (ntok - first == 4 && parseDouble(tok[first + 3], &v2)))) {
      r1 = tok[first];
      r2 = ntok - first == 4 ? tok[first + 2] : nullptr;
      ok = true;
    } else {
      char* f[6];
      fixedFields(f);
      if (f[2] && parseDouble(f[3], &v1) && (!f[4] || parseDouble(f[5], &v2))) {
        r1 = f[2];
        r2 = f[4];
        ok = true;
      }
    }
    if (!ok) {
      if (ntok > 5) return fail("Error: not free format mps file.\n", "MPS reader: not free format\n");
      return lineError();
    }
    rhsEntry(r1, v1, isRange);
    if (r2) rhsEntry(r2, v2, isRange);
    return 0;
  }

  int boundsLine() {
    const char* type = nullptr;
    const char* col = nullptr;
    double v = 0;
    bool hasValue = false;
    if (ntok >= 2 && ntok <= 4) {
      type = tok[0];
      if (ntok == 4) {
        col = tok[2];
        hasValue = parseDouble(tok[3], &v);
        if (!hasValue) type = nullptr;
      } else if (ntok == 3) {
        // "TYPE SET COL" or "TYPE COL VALUE"; a type without a value takes
        // the first reading when the third word names a column.
        double x;
        bool valueless = strcasecmp(type, "FR") == 0 || strcasecmp(type, "MI") == 0 ||
                         strcasecmp(type, "PL") == 0 || strcasecmp(type, "BV") == 0;
        if (parseDouble(tok[2], &x) && findCol(tok[1]) >= 0 && !(valueless && findCol(tok[2]) >= 0)) {
          col = tok[1];
          v = x;
          hasValue = true;
        } else {
          col = tok[2];
        }
      } else {
        col = tok[1];
      }
    }
    int bt = -1;
    if (type)
      for (int k = 0; k < bCount; ++k)
        if (strcasecmp(type, kBoundNames[k]) == 0) bt = k;
    if (bt < 0 || !col) {
      char* f[6];
      fixedFields(f);
      type = f[0];
      col = f[2];
      hasValue = parseDouble(f[3], &v);
      bt = -1;
      if (type)
        for (int k = 0; k < bCount; ++k)
          if (strcasecmp(type, kBoundNames[k]) == 0) bt = k;
      if (bt < 0 || !col) return lineError();
    }
    bool needsValue = bt == bLO || bt == bUP || bt == bFX || bt == bLI || bt == bUI;
    if (needsValue && !hasValue) return lineError();
    int j = findCol(col);
    if (j < 0) {
      log(env, "Warning: column name %s in bound section not defined\n", col);
      return 0;
    }
    size_t c = static_cast<size_t>(j);
    if (boundSeen[c] & (1u << bt)) log(env, "Warning: duplicate bounds for column %s.\n", col);
    boundSeen[c] = static_cast<unsigned short>(boundSeen[c] | (1u << bt));
    switch (bt) {
      case bLO: lb[c] = v; break;
      case bUP: ub[c] = v; break;
      case bFX: lb[c] = ub[c] = v; break;
      case bFR: lb[c] = -kInf; ub[c] = kInf; break;
      case bMI: lb[c] = -kInf; break;
      case bPL: ub[c] = kInf; break;
      case bBV: vtype[c] = 'B'; lb[c] = 0; ub[c] = 1; break;
      case bLI: if (vtype[c] == 'C') vtype[c] = 'I'; lb[c] = v; break;
      case bUI: if (vtype[c] == 'C') vtype[c] = 'I'; ub[c] = v; break;
      case bSC: vtype[c] = vtype[c] == 'C' ? 'S' : 'N'; ub[c] = hasValue ? v : kInf; break;
      case bSI: vtype[c] = 'N'; ub[c] = hasValue ? v : kInf; break;
      default: break;
    }
    return 0;
  }

  // A quadratic term line: two column names and a value, in free or fixed form.
  int termLine(int* i, int* j, double* v) {
    const char* a = nullptr;
    const char* b = nullptr;
    if (ntok == 3 && parseDouble(tok[2], v)) {
      a = tok[0];
      b = tok[1];
    } else {
      char* f[6];
      fixedFields(f);
      if (!f[1] || !f[2] || !parseDouble(f[3], v)) return lineError();
      a = f[1];
      b = f[2];
    }
    *i = findCol(a);
    *j = findCol(b);
    if (*i < 0 || *j < 0) {
      log(env, "  variable name in the quadratic section not found\n");
      return lineError();
    }
    return 0;
  }

  int quadLine() {
    int i = 0, j = 0;
    double v = 0;
    if (int err = termLine(&i, &j, &v)) return err;
    if (std::fabs(v) < env->par.VORN_PAR_ZERO) {
      if (!warnedSmallQ) {
        log(env, "Warning: mps file contains small (< %g) quadratic objective coefficients, ignored\n",
            env->par.VORN_PAR_ZERO);
        warnedSmallQ = true;
      }
      return 0;
    }
    quad.push_back(QTerm{i, j, v});
    return 0;
  }

  int sosLine() {
    // Set headers: "S1 [SOS] name [priority]"; members: "[set] column weight".
    if (ntok >= 2 && (strcasecmp(tok[0], "S1") == 0 || strcasecmp(tok[0], "S2") == 0)) {
      sosType.push_back(tok[0][1] == '2' ? 2 : 1);
      return 0;
    }
    double w = 0;
    const char* col = nullptr;
    if (ntok == 2 && parseDouble(tok[1], &w)) col = tok[0];
    if (ntok == 3 && parseDouble(tok[2], &w)) col = tok[1];
    if (!col) {
      char* f[6];
      fixedFields(f);
      if (f[0] && (strcasecmp(f[0], "S1") == 0 || strcasecmp(f[0], "S2") == 0)) {
        sosType.push_back(f[0][1] == '2' ? 2 : 1);
        return 0;
      }
      if (f[2] && parseDouble(f[3], &w))
        col = f[2];
      else if (f[1] && parseDouble(f[3], &w))
        col = f[1];
    }
    if (!col || sosType.empty()) return lineError();
    int j = findCol(col);
    if (j < 0) return lineError();
    sosMem.push_back(SosMember{static_cast<int>(sosType.size()) - 1, j, w});
    return 0;
  }

  // LAZYCONS [n]: rows as in ROWS, with the lazy value of the header.
  int lazyHeader() {
    int value = 1;
    if (ntok > 1 && std::sscanf(tok[1], "%d", &value) != 1) return lineError();
    for (size_t k = 0; k < lazyValues.size(); ++k)
      if (lazyValues[k] == value) {
        log(env, "Error at line %d (second LAZYCONS section with same lazyness):\n %s\n", lineNo, shown());
        return raise(env, VRX_ERROR_FILE_READ, true, "MPS read error at line %d:\n%s\n", lineNo, text);
      }
    lazyValues.push_back(value);
    curLazy = value;
    sawRows = true;
    return 0;
  }

  int qcHeader() {
    if (ntok < 2) return lineError();
    int r = findRow(tok[1]);
    if (r < 0)
      return fail("Error: a quadratic constraint isn't defined in row section.\n",
                  "Error: a quadratic constraint isn't defined in row section.\n");
    if (qcRowSeen.size() < static_cast<size_t>(numRows())) qcRowSeen.resize(static_cast<size_t>(numRows()), 0);
    if (qcRowSeen[static_cast<size_t>(r)])
      return fail("Error, Q terms of a constraint appear in more than one section.\n",
                  "Error, Q terms of a constraint appear in more than one section.\n");
    qcRowSeen[static_cast<size_t>(r)] = 1;
    qcs.push_back(QcItem{r, static_cast<int64_t>(qcTerms.size())});
    return 0;
  }

  int qcLine() {
    int i = 0, j = 0;
    double v = 0;
    if (int err = termLine(&i, &j, &v)) return err;
    if (std::fabs(v) < env->par.VORN_PAR_ZERO) return 0;
    qcTerms.push_back(QTerm{i, j, v});
    return 0;
  }

  // IF row binvar value
  int indicatorLine() {
    if (ntok < 1 || strcasecmp(tok[0], "IF") != 0) {
      log(env, "Error at line %d, expected indicator keyword 'IF'\n%s\n", lineNo, shown());
      return raise(env, VRX_ERROR_FILE_READ, true, "MPS read error at line %d:\n%s\n", lineNo, text);
    }
    if (ntok != 4) {
      log(env, "Error at line %d, expected indicator constraint:\n%s\n", lineNo, shown());
      return raise(env, VRX_ERROR_FILE_READ, true, "MPS read error at line %d:\n%s\n", lineNo, text);
    }
    int var = findCol(tok[2]);
    if (var < 0) {
      log(env, "Error at line %d, unknown indicator variable name:\n%s\n", lineNo, shown());
      return raise(env, VRX_ERROR_FILE_READ, true, "MPS read error at line %d:\n%s\n", lineNo, text);
    }
    double value = -1;
    if (!parseDouble(tok[3], &value) || (value != 0.0 && value != 1.0)) {
      log(env, "Error at line %d, indicator variable value incorrect:\n%s\n", lineNo, shown());
      return raise(env, VRX_ERROR_FILE_READ, true, "MPS read error at line %d:\n%s\n", lineNo, text);
    }
    int r = findRow(tok[1]);
    if (r == -1 || r == kDroppedRow) {
      log(env, "Warning: indicator row %s isn't defined in row section and will be skipped.\n", tok[1]);
      return 0;
    }
    if (r < 0) {
      log(env, "Warning: indicator row %s for objective isn't supported and will be skipped\n", tok[1]);
      return 0;
    }
    inds.push_back(IndItem{r, var, static_cast<int>(value)});
    return 0;
  }

  int genError(const char* what) {
    log(env, "Error at line %d, %s:\n%s\n", lineNo, what, shown());
    return raise(env, VRX_ERROR_FILE_READ, true, "MPS read error at line %d:\n%s\n", lineNo, text);
  }

  // A header "TYPE name", then one line per operand: the result first, then
  // variables, and for MIN and MAX constants.
  int genLine() {
    if (ntok == 2) {
      int type = -1;
      for (int t = 0; t < 5; ++t)
        if (strcasecmp(tok[0], kGenTypeNames[t]) == 0) type = t;
      if (type < 0) return genError("parsing general constraint type not implemented");
      if (int err = genFinish()) return err;
      double start = type == VRX_GENCONSTR_MAX ? -kInf : (type == VRX_GENCONSTR_MIN ? kInf : 0.0);
      gens.push_back(GenItem{type, store(tok[1]), lineNo, static_cast<int64_t>(genVars.size()), 0,
                             start, -1, false});
      return 0;
    }
    if (ntok != 1 || gens.empty()) return genError("expected general constraint");
    GenItem& g = gens.back();
    double v = 0;
    // A column whose name reads as a number is still the column.
    bool isNum = findCol(tok[0]) < 0 && parseDouble(tok[0], &v);
    if (g.res < 0) {
      if (isNum)
        return genError("general constraint has to start with known resultant variable, not with a constant");
      g.res = findCol(tok[0]);
      if (g.res < 0) return genError("unknown variable name");
      return 0;
    }
    if (isNum) {
      if (g.type != VRX_GENCONSTR_MAX && g.type != VRX_GENCONSTR_MIN) {
        log(env, "Error at line %d, general constraint of type %s does not support constants:\n%s\n",
            lineNo, kGenTypeNames[g.type], shown());
        return raise(env, VRX_ERROR_FILE_READ, true, "MPS read error at line %d:\n%s\n", lineNo, text);
      }
      g.constant = g.type == VRX_GENCONSTR_MAX ? std::max(g.constant, v) : std::min(g.constant, v);
      g.anyConstant = true;
      return 0;
    }
    int j = findCol(tok[0]);
    if (j < 0) return genError("unknown variable name");
    if (g.type == VRX_GENCONSTR_ABS && g.count == 1)
      return genError("ABS constraint with multiple argument variables");
    genVars.push_back(j);
    g.count++;
    return 0;
  }

  // Checks the last general constraint once its operands are all read.
  int genFinish() {
    if (gens.empty()) return 0;
    GenItem& g = gens.back();
    if (g.res < 0 && g.count == 0) {
      lineNo = g.line;
      return genError("no variables nor constants read");
    }
    const char* name = nameAt(g.name);
    if (g.type == VRX_GENCONSTR_ABS && g.count == 0) {
      lineNo = g.line;
      return genError("ABS constraint without argument variable");
    }
    if ((g.type == VRX_GENCONSTR_MAX || g.type == VRX_GENCONSTR_MIN) && g.count == 0) {
      if (!g.anyConstant || std::fabs(g.constant) >= kInf)
        return fail("Error, read general MIN or MAX constraint with no operands and no finite constant\n",
                    "Error, read general MIN or MAX constraint with no operands and no finite constant\n");
      log(env, "Warning: resultant variable of general constraint <%s> depends only on constants\n", name);
    } else if (g.count == 0) {
      log(env, "Warning: general constraint <%s> has nothing but a resultant variable\n", name);
    }
    return 0;
  }

  int pwlLine() {
    double x = 0, y = 0;
    if (ntok != 3 || !parseDouble(tok[1], &x) || !parseDouble(tok[2], &y) || findCol(tok[0]) < 0) {
      log(env, "Error in the piecewise linear objective section at line %d\n", lineNo);
      return raise(env, VRX_ERROR_FILE_READ, true, "MPS reader: in the piecewise linear objective section\n");
    }
    int j = findCol(tok[0]);
    if (pwlClosed.size() < static_cast<size_t>(numCols())) pwlClosed.resize(static_cast<size_t>(numCols()), 0);
    if (j != lastPwlVar) {
      if (pwlClosed[static_cast<size_t>(j)])
        return fail("Error: objective pieces are separated for a variable\n",
                    "MPS reader: objective pieces are separated for a variable\n");
      if (lastPwlVar >= 0) pwlClosed[static_cast<size_t>(lastPwlVar)] = 1;
      lastPwlVar = j;
    }
    pwl.push_back(PwlPt{j, x, y});
    return 0;
  }

  int header(Section* sec) {
    const char* key = tok[0];
    auto is = [&](const char* k) { return strcasecmp(key, k) == 0; };
    if (is("NAME")) {
      // The name is the rest of the line.
      const char* p = text + 4;
      while (isBlank(*p)) ++p;
      size_t n = std::strlen(p);
      while (n > 0 && (isBlank(p[n - 1]) || p[n - 1] == '\n' || p[n - 1] == '\r')) --n;
      char buf[256];
      if (n > 255) n = 255;
      std::memcpy(buf, p, n);
      buf[n] = '\0';
      modelName = store(buf);
      *sec = kName;
    } else if (is("OBJSENSE") || is("OBJSENSE:")) {
      *sec = kObjSense;
      if (ntok > 1) return objSenseValue(tok[1]);
    } else if (is("OBJNAME")) {
      *sec = kObjName;
      if (ntok > 1) objName = store(tok[1]);
    } else if (is("ROWS")) {
      sawRows = true;
      *sec = kRows;
    } else if (is("COLUMNS")) {
      if (!sawRows) return fail("Error: no row section.\n", "MPS reader: no row section\n");
      sawColumns = true;
      *sec = kColumns;
    } else if (is("RHS")) {
      *sec = kRhs;
    } else if (is("RANGES")) {
      *sec = kRanges;
    } else if (is("BOUNDS")) {
      *sec = kBounds;
    } else if (is("SOS") || is("SETS")) {
      *sec = kSos;
    } else if (is("QUADOBJ") || is("QMATRIX") || is("QSECTION")) {
      if (sawQuad)
        return fail("Error: two or more quadratic objective sections\n",
                    "Two or more quadratic objective sections\n");
      sawQuad = true;
      *sec = is("QUADOBJ") ? kQuadUpper : kQuadFull;
      quadFull = *sec == kQuadFull;
    } else if (is("LAZYCONS")) {
      *sec = kLazy;
      return lazyHeader();
    } else if (is("QCMATRIX")) {
      *sec = kQCMatrix;
      return qcHeader();
    } else if (is("INDICATORS")) {
      *sec = kIndicators;
      sawIndicators = true;
    } else if (is("GENCONS")) {
      *sec = kGencons;
    } else if (is("PWLOBJ")) {
      *sec = kPwlObj;
    } else if (is("ENDATA")) {
      sawEnd = true;
      *sec = kEnd;
    } else {
      // Sections this reader does not take yet, and lines that fit nothing.
      return lineError();
    }
    return 0;
  }

  int objSenseValue(const char* v) {
    if (strncasecmp(v, "MAX", 3) == 0)
      objSense = -1;
    else if (strncasecmp(v, "MIN", 3) == 0)
      objSense = 1;
    else
      return lineError();
    return 0;
  }

  int run() {
    line = static_cast<char*>(envMalloc(env, kLineMax + 2));
    text = static_cast<char*>(envMalloc(env, kLineMax + 2));
    fixedBuf = static_cast<char*>(envMalloc(env, kLineMax + 16));
    rowIdx = nameIndexCreate(env, 1000, true);
    colIdx = nameIndexCreate(env, 1000, true);
    if (!line || !text || !fixedBuf || !rowIdx || !colIdx) throw std::bad_alloc();
    Section sec = kNone;
    int got = 0;
    while (streamGetLine(s, text, kLineMax + 1, &got)) {
      ++lineNo;
      size_t n = std::strlen(text);
      // A text file holds no NUL byte, and no line of a megabyte.
      if (n < static_cast<size_t>(got) || (got == kLineMax && text[got - 1] != '\n')) return lineError();
      while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r')) text[--n] = '\0';
      if (n == 0 || text[0] == '*') continue;
      std::memcpy(line, text, n + 1);
      tokenize();
      if (ntok == 0) continue;
      int err = 0;
      if (isBlank(text[0]))
        for (int k = 0; k < ntok && k < kMaxTokens; ++k)
          if (std::strlen(tok[k]) > static_cast<size_t>(VRX_MAX_NAMELEN)) return lineError();
      if (!isBlank(text[0])) {
        if (sawEnd) break;
        if (sec == kGencons && (err = genFinish())) return err;
        if (sec == kRows) curLazy = 0;
        err = header(&sec);
      } else {
        switch (sec) {
          case kObjSense: err = objSenseValue(tok[0]); break;
          case kObjName: objName = store(tok[0]); break;
          case kRows: err = rowsLine(); break;
          case kColumns: err = columnsLine(); break;
          case kRhs: err = rhsLine(false); break;
          case kRanges: err = rhsLine(true); break;
          case kBounds: err = boundsLine(); break;
          case kSos: err = sosLine(); break;
          case kQuadUpper:
          case kQuadFull: err = quadLine(); break;
          case kLazy: err = rowsLine(); break;
          case kQCMatrix: err = qcLine(); break;
          case kIndicators: err = indicatorLine(); break;
          case kGencons: err = genLine(); break;
          case kPwlObj: err = pwlLine(); break;
          default: err = lineError(); break;
        }
      }
      if (err) return err;
    }
    if (!sawRows) return fail("Error: no row section.\n", "MPS reader: no row section\n");
    if (!sawColumns) return fail("Error: no column section.\n", "MPS reader: no column section\n");
    if (!sawEnd) {
      log(env, "Error: line %d not right or no ENDATA.\n", lineNo);
      return raise(env, VRX_ERROR_FILE_READ, true, "MPS reader: line %d not right or no ENDATA\n",
                   lineNo);
    }
    if (numCols() == 0) return fail("Error: no columns.\n", "MPS reader: no columns\n");
    return 0;
  }
};

char** nameArray(VRXenv* env, size_t n) {
  auto** names = envCallocArray<char*>(env, n ? n : 1);
  if (!names) throw std::bad_alloc();
  return names;
}

}  // namespace

static void extrasFree(VRXenv* env, MpsExtras* x) {
  if (!x) return;
  for (int k = 0; x->objName && k < x->numObj; ++k) envFree(env, x->objName[k]);
  for (int k = 0; x->genName && k < x->numGen; ++k) envFree(env, x->genName[k]);
  void* blocks[] = {x->lazy,   x->objName, x->objPriority, x->objWeight, x->objAbsTol, x->objRelTol,
                    x->objBeg, x->objInd,  x->objVal,      x->qcRow,     x->qcBeg,     x->qcI,
                    x->qcJ,    x->qcVal,   x->indRow,      x->indVar,    x->indVal,    x->genType,
                    x->genName, x->genRes, x->genBeg,      x->genVars,   x->genConst,  x->pwlVar,
                    x->pwlBeg, x->pwlX,    x->pwlY};
  for (void* b : blocks) envFree(env, b);
  envFree(env, x);
}

void mpsDataFree(VRXenv* env, MpsData* d) {
  if (!d) return;
  extrasFree(env, d->extras);
  d->extras = nullptr;
  if (d->rowNames)
    for (int i = 0; i < d->numRows; ++i) envFree(env, d->rowNames[i]);
  if (d->colNames)
    for (int j = 0; j < d->numCols; ++j) envFree(env, d->colNames[j]);
  void* blocks[] = {d->modelName, d->rowNames, d->sense,  d->rhs,    d->colNames,  d->obj,
                    d->lb,        d->ub,       d->vtype,  d->colBeg, d->colLen,    d->rowInd,
                    d->val,       d->sosType,  d->sosBeg, d->sosInd, d->sosWeight, d->qRow,
                    d->qCol,      d->qVal};
  for (void* b : blocks) envFree(env, b);
  std::memset(d, 0, sizeof *d);
}

// Builds the result arrays from what the reader gathered.
static void buildData(VRXenv* env, Reader& rd, MpsData* d) {
  const int m = rd.numRows();
  int n = rd.numCols();
  // Ranged rows become equalities with a slack column each.
  int ranged = 0;
  for (int i = 0; i < m; ++i) ranged += rd.rangeSeen[static_cast<size_t>(i)] ? 1 : 0;
  const int total = n + ranged;
  d->objSense = rd.objSense;
  d->objCon = rd.objCon;
  d->numRows = m;
  d->numCols = total;
  d->modelName = envStrdup(env, rd.modelName >= 0 ? rd.nameAt(rd.modelName) : "");
  if (!d->modelName) throw std::bad_alloc();
  d->rowNames = nameArray(env, static_cast<size_t>(m));
  d->colNames = nameArray(env, static_cast<size_t>(total));
  d->sense = envAllocArray<char>(env, static_cast<size_t>(m) + 1);
  d->rhs = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
  d->obj = envAllocArray<double>(env, static_cast<size_t>(total) + 1);
  d->lb = envAllocArray<double>(env, static_cast<size_t>(total) + 1);
  d->ub = envAllocArray<double>(env, static_cast<size_t>(total) + 1);
  d->vtype = envAllocArray<char>(env, static_cast<size_t>(total) + 1);
  d->colBeg = envAllocArray<int64_t>(env, static_cast<size_t>(total) + 1);
  d->colLen = envAllocArray<int>(env, static_cast<size_t>(total) + 1);
  if (!d->sense || !d->rhs || !d->obj || !d->lb || !d->ub || !d->vtype || !d->colBeg ||
      !d->colLen)
    throw std::bad_alloc();
  for (int i = 0; i < m; ++i) {
    d->rowNames[i] = envStrdup(env, rd.nameAt(rd.rowName[static_cast<size_t>(i)]));
    if (!d->rowNames[i]) throw std::bad_alloc();
  }
  for (int j = 0; j < n; ++j) {
    d->colNames[j] = envStrdup(env, rd.nameAt(rd.colName[static_cast<size_t>(j)]));
    if (!d->colNames[j]) throw std::bad_alloc();
  }
  for (int i = 0; i < m; ++i) {
    d->sense[i] = rd.sense[static_cast<size_t>(i)];
    d->rhs[i] = rd.rhs[static_cast<size_t>(i)];
  }
  bool anyObj = false;
  for (int j = 0; j < n; ++j) {
    size_t c = static_cast<size_t>(j);
    d->obj[j] = rd.obj[c];
    anyObj = anyObj || rd.obj[c] != 0.0;
    double l = rd.lb[c], u = rd.ub[c];
    if (l <= -1e30) l = -kInf;
    if (l >= 1e30) l = kInf;
    if (u >= 1e30) u = kInf;
    if (u <= -1e30) u = -kInf;
    d->lb[j] = l;
    d->ub[j] = u;
    d->vtype[j] = rd.vtype[c];
  }
  if (!anyObj) log(env, "Warning: no linear objective.\n");

  // Matrix, column-wise, by counting.
  size_t nt = rd.trip.size();
  for (int j = 0; j < total; ++j) d->colLen[j] = 0;
  for (size_t k = 0; k < nt; ++k) d->colLen[rd.trip[k].col]++;
  int64_t nnz = static_cast<int64_t>(nt) + ranged;
  d->rowInd = envAllocArray<int>(env, static_cast<size_t>(nnz) + 1);
  d->val = envAllocArray<double>(env, static_cast<size_t>(nnz) + 1);
  if (!d->rowInd || !d->val) throw std::bad_alloc();
  int64_t at = 0;
  for (int j = 0; j < n; ++j) {
    d->colBeg[j] = at;
    at += d->colLen[j];
  }
  EnvVec<int64_t> fill(env);
  fill.resize(static_cast<size_t>(n) + 1, 0);
  for (int j = 0; j < n; ++j) fill[static_cast<size_t>(j)] = d->colBeg[j];
  for (size_t k = 0; k < nt; ++k) {
    const Triplet& t = rd.trip[k];
    int64_t p = fill[static_cast<size_t>(t.col)]++;
    d->rowInd[p] = t.row;
    d->val[p] = t.val;
  }
  // Repeated (column, row) entries add up.
  EnvVec<int64_t> seenAt(env);
  seenAt.resize(static_cast<size_t>(m) + 1, -1);
  int64_t out = 0;
  for (int j = 0; j < n; ++j) {
    int64_t beg = d->colBeg[j], end = beg + d->colLen[j];
    d->colBeg[j] = out;
    int64_t first = out;
    for (int64_t p = beg; p < end; ++p) {
      int r = d->rowInd[p];
      int64_t q = seenAt[static_cast<size_t>(r)];
      if (q >= first) {
        log(env, "Warning: duplicate nonzeros for column %s and row %s.\n", d->colNames[j],
            d->rowNames[r]);
        d->val[q] += d->val[p];
        continue;
      }
      seenAt[static_cast<size_t>(r)] = out;
      d->rowInd[out] = r;
      d->val[out] = d->val[p];
      ++out;
    }
    d->colLen[j] = static_cast<int>(out - first);
  }
  // Range slacks: row a x + s = hi with s in [0, hi - lo].
  for (int i = 0, j = n; i < m; ++i) {
    if (!rd.rangeSeen[static_cast<size_t>(i)]) continue;
    double r = rd.range[static_cast<size_t>(i)], b = d->rhs[i], lo, hi;
    switch (d->sense[i]) {
      case '<': lo = b - std::fabs(r); hi = b; break;
      case '>': lo = b; hi = b + std::fabs(r); break;
      default:
        if (r < 0) {
          lo = b + r;
          hi = b;
        } else {
          lo = b;
          hi = b + r;
        }
        break;
    }
    d->sense[i] = '=';
    d->rhs[i] = hi;
    char name[300];
    std::snprintf(name, sizeof name, "MPS_Rg%s", d->rowNames[i]);
    d->colNames[j] = envStrdup(env, name);
    if (!d->colNames[j]) throw std::bad_alloc();
    d->obj[j] = 0;
    d->lb[j] = 0;
    d->ub[j] = hi - lo;
    d->vtype[j] = 'C';
    d->colBeg[j] = out;
    d->colLen[j] = 1;
    d->rowInd[out] = i;
    d->val[out] = 1.0;
    ++out;
    ++j;
  }
  d->colBeg[total] = out;
  d->numNZs = out;

  // SOS sets in the order they were declared.
  int ns = static_cast<int>(rd.sosType.size());
  d->numSOS = ns;
  if (ns > 0) {
    size_t nm = rd.sosMem.size();
    d->sosType = envAllocArray<int>(env, static_cast<size_t>(ns));
    d->sosBeg = envCallocArray<int>(env, static_cast<size_t>(ns) + 1);
    d->sosInd = envAllocArray<int>(env, nm + 1);
    d->sosWeight = envAllocArray<double>(env, nm + 1);
    if (!d->sosType || !d->sosBeg || !d->sosInd || !d->sosWeight) throw std::bad_alloc();
    for (int s = 0; s < ns; ++s) d->sosType[s] = rd.sosType[static_cast<size_t>(s)];
    for (size_t k = 0; k < nm; ++k) d->sosBeg[rd.sosMem[k].set + 1]++;
    for (int s = 0; s < ns; ++s) d->sosBeg[s + 1] += d->sosBeg[s];
    EnvVec<int> pos(env);
    pos.resize(static_cast<size_t>(ns), 0);
    for (int s = 0; s < ns; ++s) pos[static_cast<size_t>(s)] = d->sosBeg[s];
    for (size_t k = 0; k < nm; ++k) {
      int p = pos[static_cast<size_t>(rd.sosMem[k].set)]++;
      d->sosInd[p] = rd.sosMem[k].col;
      d->sosWeight[p] = rd.sosMem[k].weight;
    }
  }
}

// Turns the quadratic section into one term per pair, checking its form.
static int buildQuad(VRXenv* env, Reader& rd, bool full, MpsData* d) {
  size_t nq = rd.quad.size();
  if (nq == 0) return 0;
  QTerm* q = rd.quad.data();
  if (!full)
    for (size_t k = 0; k < nq; ++k)
      if (q[k].i > q[k].j) std::swap(q[k].i, q[k].j);
  // Sorted by (i, j), duplicates stand together and mirrors are found by search.
  std::qsort(q, nq, sizeof(QTerm), [](const void* a, const void* b) {
    const QTerm* x = static_cast<const QTerm*>(a);
    const QTerm* y = static_cast<const QTerm*>(b);
    if (x->i != y->i) return x->i < y->i ? -1 : 1;
    if (x->j != y->j) return x->j < y->j ? -1 : 1;
    return 0;
  });
  for (size_t k = 1; k < nq; ++k)
    if (q[k].i == q[k - 1].i && q[k].j == q[k - 1].j)
      return rd.fail("Error: duplicate quadratic elements\n", "Duplicate quadratic elements\n");
  d->qRow = envAllocArray<int>(env, nq);
  d->qCol = envAllocArray<int>(env, nq);
  d->qVal = envAllocArray<double>(env, nq);
  if (!d->qRow || !d->qCol || !d->qVal) throw std::bad_alloc();
  int out = 0;
  for (size_t k = 0; k < nq; ++k) {
    int i = q[k].i, j = q[k].j;
    double v = q[k].v;
    if (full) {
      if (i != j) {
        // The whole matrix is given: each entry needs its mirror with the same value.
        size_t lo = 0, hi = nq;
        while (lo < hi) {
          size_t mid = (lo + hi) / 2;
          if (q[mid].i < j || (q[mid].i == j && q[mid].j < i))
            lo = mid + 1;
          else
            hi = mid;
        }
        if (lo >= nq || q[lo].i != j || q[lo].j != i || q[lo].v != v)
          return rd.fail("Error: qmatrix isn't symmetric\n", "Qmatrix isn't symmetric\n");
        if (i > j) continue;
      }
    }
    d->qRow[out] = i;
    d->qCol[out] = j;
    d->qVal[out] = i == j ? 0.5 * v : v;
    ++out;
  }
  d->numQNZs = out;
  return 0;
}

template <class T>
static T* arrayOf(VRXenv* env, size_t n) {
  T* p = envCallocArray<T>(env, n ? n : 1);
  if (!p) throw std::bad_alloc();
  return p;
}

static char* nameCopy(VRXenv* env, const char* s) {
  char* p = envStrdup(env, s);
  if (!p) throw std::bad_alloc();
  return p;
}

// Collects what goes beyond the linear model; d->extras stays null when nothing does.
static void buildExtras(VRXenv* env, Reader& rd, MpsData* d) {
  const int m = rd.numRows();
  bool anyLazy = false;
  for (int i = 0; i < m; ++i) anyLazy = anyLazy || rd.rowLazy[static_cast<size_t>(i)] != 0;
  if (rd.sawIndicators && rd.inds.empty()) log(env, "Warning: empty indicator section skipped\n");
  // Indicator rows: not ranged, and never lazy.
  EnvVec<IndItem> inds(env);
  for (size_t k = 0; k < rd.inds.size(); ++k) {
    const IndItem& it = rd.inds[k];
    const char* rn = rd.nameAt(rd.rowName[static_cast<size_t>(it.row)]);
    if (rd.rangeSeen[static_cast<size_t>(it.row)]) {
      log(env, "Warning: range row as indicator row %s not supported and will be skipped\n", rn);
      continue;
    }
    if (rd.rowLazy[static_cast<size_t>(it.row)]) {
      log(env, "Warning: indicator constraint %s cannot be lazy (lazyness removed)\n", rn);
      rd.rowLazy[static_cast<size_t>(it.row)] = 0;
    }
    inds.push_back(it);
  }
  anyLazy = false;
  for (int i = 0; i < m; ++i) anyLazy = anyLazy || rd.rowLazy[static_cast<size_t>(i)] != 0;
  if (!anyLazy && rd.objRows.empty() && rd.qcs.empty() && inds.empty() && rd.gens.empty() &&
      rd.pwl.empty())
    return;
  auto* x = static_cast<MpsExtras*>(envCalloc(env, 1, sizeof(MpsExtras)));
  if (!x) throw std::bad_alloc();
  d->extras = x;
  if (anyLazy) {
    x->lazy = arrayOf<int>(env, static_cast<size_t>(m));
    for (int i = 0; i < m; ++i) x->lazy[i] = rd.rowLazy[static_cast<size_t>(i)];
  }
  int no = static_cast<int>(rd.objRows.size());
  if (no > 0) {
    x->numObj = no;
    x->objName = arrayOf<char*>(env, static_cast<size_t>(no));
    x->objPriority = arrayOf<int>(env, static_cast<size_t>(no));
    x->objWeight = arrayOf<double>(env, static_cast<size_t>(no));
    x->objAbsTol = arrayOf<double>(env, static_cast<size_t>(no));
    x->objRelTol = arrayOf<double>(env, static_cast<size_t>(no));
    x->objBeg = arrayOf<int>(env, static_cast<size_t>(no) + 1);
    size_t nt = rd.objTrip.size();
    x->objInd = arrayOf<int>(env, nt);
    x->objVal = arrayOf<double>(env, nt);
    for (int k = 0; k < no; ++k) {
      const ObjRowInfo& o = rd.objRows[static_cast<size_t>(k)];
      x->objName[k] = nameCopy(env, rd.nameAt(o.name));
      x->objPriority[k] = o.priority;
      x->objWeight[k] = o.weight;
      x->objAbsTol[k] = o.absTol;
      x->objRelTol[k] = o.relTol;
    }
    for (size_t t = 0; t < nt; ++t) x->objBeg[rd.objTrip[t].row + 1]++;
    for (int k = 0; k < no; ++k) x->objBeg[k + 1] += x->objBeg[k];
    EnvVec<int> fill(env);
    fill.resize(static_cast<size_t>(no), 0);
    for (int k = 0; k < no; ++k) fill[static_cast<size_t>(k)] = x->objBeg[k];
    for (size_t t = 0; t < nt; ++t) {
      int p = fill[static_cast<size_t>(rd.objTrip[t].row)]++;
      x->objInd[p] = rd.objTrip[t].col;
      x->objVal[p] = rd.objTrip[t].val;
    }
  }
  int nq = static_cast<int>(rd.qcs.size());
  if (nq > 0) {
    size_t terms = rd.qcTerms.size();
    x->numQC = nq;
    x->qcRow = arrayOf<int>(env, static_cast<size_t>(nq));
    x->qcBeg = arrayOf<int>(env, static_cast<size_t>(nq) + 1);
    x->qcI = arrayOf<int>(env, terms);
    x->qcJ = arrayOf<int>(env, terms);
    x->qcVal = arrayOf<double>(env, terms);
    for (int k = 0; k < nq; ++k) {
      x->qcRow[k] = rd.qcs[static_cast<size_t>(k)].row;
      x->qcBeg[k] = static_cast<int>(rd.qcs[static_cast<size_t>(k)].beg);
    }
    x->qcBeg[nq] = static_cast<int>(terms);
    for (size_t t = 0; t < terms; ++t) {
      x->qcI[t] = rd.qcTerms[t].i;
      x->qcJ[t] = rd.qcTerms[t].j;
      x->qcVal[t] = rd.qcTerms[t].v;
    }
  }
  int ni = static_cast<int>(inds.size());
  if (ni > 0) {
    x->numInd = ni;
    x->indRow = arrayOf<int>(env, static_cast<size_t>(ni));
    x->indVar = arrayOf<int>(env, static_cast<size_t>(ni));
    x->indVal = arrayOf<int>(env, static_cast<size_t>(ni));
    for (int k = 0; k < ni; ++k) {
      x->indRow[k] = inds[static_cast<size_t>(k)].row;
      x->indVar[k] = inds[static_cast<size_t>(k)].var;
      x->indVal[k] = inds[static_cast<size_t>(k)].val;
    }
  }
  int ng = static_cast<int>(rd.gens.size());
  if (ng > 0) {
    x->numGen = ng;
    x->genType = arrayOf<int>(env, static_cast<size_t>(ng));
    x->genName = arrayOf<char*>(env, static_cast<size_t>(ng));
    x->genRes = arrayOf<int>(env, static_cast<size_t>(ng));
    x->genBeg = arrayOf<int>(env, static_cast<size_t>(ng) + 1);
    x->genVars = arrayOf<int>(env, rd.genVars.size());
    x->genConst = arrayOf<double>(env, static_cast<size_t>(ng));
    for (int k = 0; k < ng; ++k) {
      const GenItem& g = rd.gens[static_cast<size_t>(k)];
      x->genType[k] = g.type;
      x->genName[k] = nameCopy(env, rd.nameAt(g.name));
      x->genRes[k] = g.res;
      x->genBeg[k] = static_cast<int>(g.beg);
      x->genConst[k] = g.constant;
    }
    x->genBeg[ng] = static_cast<int>(rd.genVars.size());
    for (size_t t = 0; t < rd.genVars.size(); ++t) x->genVars[t] = rd.genVars[t];
  }
  size_t npts = rd.pwl.size();
  if (npts > 0) {
    int nv = 0;
    for (size_t t = 0; t < npts; ++t) nv += t == 0 || rd.pwl[t].var != rd.pwl[t - 1].var;
    x->numPwl = nv;
    x->pwlVar = arrayOf<int>(env, static_cast<size_t>(nv));
    x->pwlBeg = arrayOf<int>(env, static_cast<size_t>(nv) + 1);
    x->pwlX = arrayOf<double>(env, npts);
    x->pwlY = arrayOf<double>(env, npts);
    int k = -1;
    for (size_t t = 0; t < npts; ++t) {
      if (t == 0 || rd.pwl[t].var != rd.pwl[t - 1].var) {
        ++k;
        x->pwlVar[k] = rd.pwl[t].var;
        x->pwlBeg[k] = static_cast<int>(t);
      }
      x->pwlX[t] = rd.pwl[t].x;
      x->pwlY[t] = rd.pwl[t].y;
    }
    x->pwlBeg[nv] = static_cast<int>(npts);
  }
}

int mpsRead(VRXenv* env, Stream* s, const char* filename, MpsData* out) {
  std::memset(out, 0, sizeof *out);
  Reader rd(env);
  rd.s = s;
  rd.file = filename;
  int err = 0;
  try {
    err = rd.run();
    if (!err) {
      buildData(env, rd, out);
      err = buildQuad(env, rd, rd.quadFull, out);
      if (!err) buildExtras(env, rd, out);
    }
  } catch (const std::bad_alloc&) {
    log(env, "Error: out of memory.\n");
    raise(env, VRX_ERROR_OUT_OF_MEMORY, true, "Out of memory in MPS reader\n");
    err = VRX_ERROR_OUT_OF_MEMORY;
  }
  if (err) {
    if (err != VRX_ERROR_OUT_OF_MEMORY) log(env, "Error in MPS file\n");
    mpsDataFree(env, out);
  }
  return err;
}

}  // namespace vrx
