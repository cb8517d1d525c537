// The MPS reader: free and fixed form, told apart line by line.
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
  kEnd
};

// Row codes in the name index besides constraint numbers.
constexpr int kObjRow = -2;
constexpr int kDroppedRow = -3;
constexpr int kMaxTokens = 8;
constexpr int kLineMax = 1 << 20;

enum BoundType { bLO, bUP, bFX, bFR, bMI, bPL, bBV, bLI, bUI, bSC, bSI, bCount };
const char* const kBoundNames[bCount] = {"LO", "UP", "FX", "FR", "MI", "PL",
                                         "BV", "LI", "UI", "SC", "SI"};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

bool parseDouble(const char* t, double* v) {
  if (!t || !*t) return false;
  char* end = nullptr;
  *v = std::strtod(t, &end);
  if (end && *end == '\0' && end != t) return true;
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
  return end && *end == '\0' && end != buf;
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

  explicit Reader(VRXenv* e)
      : env(e), arena(e), rowName(e), colName(e), sense(e), rhs(e), range(e), rhsSeen(e),
        rangeSeen(e), obj(e), lb(e), ub(e), vtype(e), boundSeen(e), trip(e), quad(e),
        sosType(e), sosMem(e) {}
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

  int lineError() {
    log(env, "Error at line %d:\n%s\n", lineNo, text);
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
    if (inSos && oldSosSet >= 0) {
      int pos = 0;
      for (size_t k = 0; k < sosMem.size(); ++k) pos += sosMem[k].set == oldSosSet;
      sosMem.push_back(SosMember{oldSosSet, j, static_cast<double>(pos + 1)});
    }
    return j;
  }

  // --- sections ---

  int rowsLine() {
    const char* type = nullptr;
    const char* name = nullptr;
    char* f[6];
    if (ntok == 2) {
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
        // "TYPE SET COL" or "TYPE COL VALUE"
        double x;
        if (parseDouble(tok[2], &x) && findCol(tok[1]) >= 0) {
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

  int quadLine() {
    const char* a = nullptr;
    const char* b = nullptr;
    double v = 0;
    if (ntok == 3 && parseDouble(tok[2], &v)) {
      a = tok[0];
      b = tok[1];
    } else {
      char* f[6];
      fixedFields(f);
      if (!f[1] || !f[2] || !parseDouble(f[3], &v)) return lineError();
      a = f[1];
      b = f[2];
    }
    int i = findCol(a), j = findCol(b);
    if (i < 0 || j < 0) {
      log(env, "  variable name in the quadratic section not found\n");
      return lineError();
    }
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
    while (streamGets(s, text, kLineMax + 1)) {
      ++lineNo;
      size_t n = std::strlen(text);
      while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r')) text[--n] = '\0';
      if (n == 0 || text[0] == '*') continue;
      std::memcpy(line, text, n + 1);
      tokenize();
      if (ntok == 0) continue;
      int err = 0;
      if (!isBlank(text[0])) {
        if (sawEnd) break;
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

void mpsDataFree(VRXenv* env, MpsData* d) {
  if (!d) return;
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
