// The LP reader: a tolerant tokenizer over the text, one pass, sections in
// any order after the objective, then one load and the extras as pending
// changes.
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <strings.h>

#include "env/envvec.h"
#include "env/nameindex.h"
#include "io/lpfile.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/pending.h"

namespace vrx {

namespace {

constexpr int kMaxToken = 255;
constexpr int kQueue = 8;      // lookahead
constexpr int kHistory = 24;   // tokens kept for the error report
constexpr int kReportLines = 10;
constexpr size_t kReadBuf = 1 << 16;
constexpr int kDupWarnings = 5;

enum Section {
  sNone,
  sObjective,
  sConstraints,
  sLazy,
  sCones,
  sBounds,
  sBinaries,
  sIntegers,
  sSemis,
  sSos,
  sPwl,
  sGenConstrs,
  sEnd,
  sCount
};

// Modes of an expression: where it stops and what it may hold.
enum ExprMode { eObjective, eMulti, eConstraint, eIndicator };

// Variable flags from the bounds and type sections.
constexpr unsigned char fLbSet = 1, fUbSet = 2, fBinary = 4, fInteger = 8, fSemi = 16;

struct Token {
  char text[kMaxToken + 2];
  int line;
  bool lineStart;  // the first token of its line
  bool eof;
};

struct Past {
  char text[kMaxToken + 2];
  int line;
};

struct Failure {};  // a reported syntax error ends the reading

struct QCItem {
  int64_t name;  // offset in the arena, -1 for none
  int64_t linBeg, quadBeg;
  char sense;
  double rhs;
};

struct GenItem {
  int type;
  int64_t name;
  int res;
  int64_t beg;  // operands or the implied row in genVar/genVal
  int count;
  double constant;
  int binValue;
  char sense;
  double rhs;
};

struct PwlItem {
  int var;
  int64_t beg;
  int count;
};

struct ObjItem {
  int64_t name;
  int priority;
  double weight, absTol, relTol, constant;
  int64_t beg;
  int count;
};

bool isSign(const char* t) { return (t[0] == '+' || t[0] == '-') && t[1] == '\0'; }

// '<', '>', '=' for the sense spellings, 'E' for "==", 0 otherwise.
char senseOf(const char* t) {
  if (!std::strcmp(t, "<") || !std::strcmp(t, "<=") || !std::strcmp(t, "=<")) return '<';
  if (!std::strcmp(t, ">") || !std::strcmp(t, ">=") || !std::strcmp(t, "=>")) return '>';
  if (!std::strcmp(t, "=")) return '=';
  if (!std::strcmp(t, "==")) return 'E';
  return 0;
}

bool isLabel(const Token& t) {
  size_t n = std::strlen(t.text);
  return !t.eof && n > 1 && t.text[n - 1] == ':' && std::strcmp(t.text, "::") != 0;
}

// Numbers with a value; infinity spellings count where bounds allow them.
bool numberValue(const char* t, double* v) {
  const char* p = t;
  bool neg = false;
  if (*p == '+' || *p == '-') neg = *p++ == '-';
  if (strcasecmp(p, "inf") == 0 || strcasecmp(p, "infinity") == 0) {
    *v = neg ? -kInf : kInf;
    return true;
  }
  if (!lpNumberLike(t)) return false;
  *v = std::strtod(t, nullptr);
  if (*v > kInf) *v = kInf;
  if (*v < -kInf) *v = -kInf;
  return true;
}

// A number in a term: infinity spellings are names there.
bool termNumber(const char* t, double* v) {
  const char* p = t;
  if (*p == '+' || *p == '-') ++p;
  if (*p == 'i' || *p == 'I') return false;
  return numberValue(t, v);
}

struct Reader {
  VRXenv* env;
  Stream* s;
  const char* file;

  // ---- characters ----
  char* buf = nullptr;
  size_t pos = 0, fill = 0;
  bool atEnd = false;
  int pushback = -1;  // a character handed back to the text
  int line = 1;
  bool tokenOnLine = false;

  // ---- tokens ----
  Token queue[kQueue];
  int qHead = 0, qCount = 0;
  Past history[kHistory];
  int hCount = 0, hNext = 0;
  int lastLine = 1;
  bool atLast = false;  // report the line of the last token read

  // ---- the model as read ----
  NameIndex* varIdx = nullptr;
  EnvVec<char> arena;
  EnvVec<int64_t> varName;
  EnvVec<double> obj, lb, ub;
  EnvVec<unsigned char> vflags;
  EnvVec<int> stamp;    // per variable: the expression that last met it
  EnvVec<int64_t> slot; // its position there
  int stampId = 0;

  EnvVec<int64_t> rowName;
  EnvVec<char> rowSense;
  EnvVec<double> rowRhs, rowRange;  // range: width, or -1 for an ordinary row
  EnvVec<int> rowLazy;
  EnvVec<int64_t> rowBeg;
  EnvVec<int> entVar;
  EnvVec<double> entVal;

  EnvVec<int> qObjI, qObjJ;
  EnvVec<double> qObjV;

  EnvVec<QCItem> qcs;
  EnvVec<int> qcLinVar, qcQI, qcQJ;
  EnvVec<double> qcLinVal, qcQV;

  EnvVec<GenItem> gens;
  EnvVec<int> genVar;
  EnvVec<double> genVal;

  EnvVec<int> sosType, sosBeg, sosVar;
  EnvVec<double> sosWeight;

  EnvVec<PwlItem> pwls;
  EnvVec<double> pwlX, pwlY;

  EnvVec<int> coneBeg, coneVar;

  EnvVec<ObjItem> objs;
  EnvVec<int> objVar;
  EnvVec<double> objVal;
  bool multi = false;

  int objSense = 1;
  double objCon = 0.0;
  int64_t modelName = -1;

  // ---- one expression ----
  EnvVec<int> xVar;
  EnvVec<double> xVal;
  EnvVec<int> xQI, xQJ;
  EnvVec<double> xQV;
  double xConst = 0.0;
  EnvVec<unsigned char> xMerged;
  int repeated = 0, cancelled = 0, small = 0;
  bool smallQ = false;

  // ---- warnings ----
  bool warnedEqEq = false, warnedNumeric = false;
  int dupWarnings = 0;
  bool seen[sCount] = {};
  bool lazySeen[4] = {};
  char msg[kMaxMessage + 1] = {};

  explicit Reader(VRXenv* e)
      : env(e), arena(e), varName(e), obj(e), lb(e), ub(e), vflags(e), stamp(e), slot(e),
        rowName(e), rowSense(e), rowRhs(e), rowRange(e), rowLazy(e), rowBeg(e), entVar(e),
        entVal(e), qObjI(e), qObjJ(e), qObjV(e), qcs(e), qcLinVar(e), qcQI(e), qcQJ(e),
        qcLinVal(e), qcQV(e), gens(e), genVar(e), genVal(e), sosType(e), sosBeg(e), sosVar(e),
        sosWeight(e), pwls(e), pwlX(e), pwlY(e), coneBeg(e), coneVar(e), objs(e), objVar(e),
        objVal(e), xVar(e), xVal(e), xQI(e), xQJ(e), xQV(e), xMerged(e) {}
  ~Reader() {
    nameIndexFree(env, varIdx);
    envFree(env, buf);
  }

  // ---------------------------------------------------------------- errors

  [[noreturn]] void fail(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);
    const Token* cur = qCount > 0 && !queue[qHead].eof && !atLast ? &queue[qHead] : nullptr;
    int at = cur ? cur->line : lastLine;
    log(env, "Error reading LP format file %s at line %d\n", file, at);
    log(env, "%s\n", msg);
    // The tokens of the last lines read, and the one at fault.
    char near[1024];
    size_t used = 0;
    near[0] = '\0';
    auto add = [&](const char* t) {
      int k = std::snprintf(near + used, sizeof near - used, "%s ", t);
      if (k > 0 && used + static_cast<size_t>(k) < sizeof near) used += static_cast<size_t>(k);
    };
    for (int k = 0; k < hCount; ++k) {
      const Past& p = history[(hNext - hCount + k + kHistory) % kHistory];
      if (p.line > at - kReportLines) add(p.text);
    }
    if (cur) add(cur->text);
    log(env, "Neighboring tokens: \" %s\"\n", near);
    throw Failure{};
  }

  // ------------------------------------------------------------ characters

  int peekChar() {
    if (pushback >= 0) return pushback;
    if (pos == fill) {
      if (atEnd) return -1;
      fill = streamRead(s, buf, kReadBuf);
      pos = 0;
      if (fill == 0) {
        atEnd = true;
        return -1;
      }
    }
    return static_cast<unsigned char>(buf[pos]);
  }
  int getChar() {
    if (pushback >= 0) {
      int c = pushback;
      pushback = -1;
      return c;
    }
    int c = peekChar();
    if (c >= 0) ++pos;
    return c;
  }

  static bool stops(int c) {
    return c < 0 || c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == ':' || c == '^' ||
           c == '\\' || c == '\0';
  }

  // A comment; the first line's "\ Model NAME" gives the model its name.
  void comment() {
    char head[kMaxToken + 16];
    size_t n = 0;
    int c;
    bool first = line == 1 && !tokenOnLine;
    while ((c = peekChar()) >= 0 && c != '\n') {
      getChar();
      if (n + 1 < sizeof head) head[n++] = static_cast<char>(c);
    }
    head[n] = '\0';
    if (first && modelName < 0 && std::strncmp(head, "\\ Model ", 8) == 0) {
      char* name = head + 8;
      size_t k = std::strlen(name);
      while (k > 0 && (name[k - 1] == '\r' || name[k - 1] == ' ')) name[--k] = '\0';
      if (k > 0 && k <= kMaxToken) modelName = store(name);
    }
  }

  void lex(Token* t) {
    int c;
    for (;;) {
      c = peekChar();
      if (c == '\n') {
        getChar();
        ++line;
        tokenOnLine = false;
      } else if (c == ' ' || c == '\t' || c == '\r' || c == '\0') {
        getChar();
      } else if (c == '\\') {
        comment();
      } else {
        break;
      }
    }
    t->line = line;
    t->lineStart = !tokenOnLine;
    t->eof = c < 0;
    t->text[0] = '\0';
    if (c < 0) return;
    tokenOnLine = true;
    getChar();
    size_t n = 0;
    t->text[n++] = static_cast<char>(c);
    if (c == ':') {
      if (peekChar() == ':') t->text[n++] = static_cast<char>(getChar());
    } else if (c != '^') {
      while (!stops(c = peekChar())) {
        if (n >= static_cast<size_t>(kMaxToken)) {
          t->text[n] = '\0';
          lastLine = line;
          fail("Token contains more than %d characters", kMaxToken);
        }
        t->text[n++] = static_cast<char>(getChar());
      }
      // A colon right behind a word makes it a label; "::" stays whole.
      if (c == ':') {
        getChar();
        if (peekChar() == ':') {
          pushback = ':';
        } else {
          t->text[n++] = ':';
        }
      }
    }
    t->text[n] = '\0';
  }

  Token& peek(int k) {
    while (qCount <= k) {
      lex(&queue[(qHead + qCount) % kQueue]);
      ++qCount;
    }
    return queue[(qHead + k) % kQueue];
  }
  void consume() {
    Token& t = peek(0);
    if (!t.eof) {
      Past& p = history[hNext];
      std::memcpy(p.text, t.text, std::strlen(t.text) + 1);
      p.line = t.line;
      hNext = (hNext + 1) % kHistory;
      if (hCount < kHistory) ++hCount;
      lastLine = t.line;
    }
    qHead = (qHead + 1) % kQueue;
    --qCount;
  }
  bool is(int k, const char* text) { return std::strcmp(peek(k).text, text) == 0; }
  bool isi(int k, const char* text) { return strcasecmp(peek(k).text, text) == 0; }

  // ------------------------------------------------------------- keywords

  // The section a keyword at token k starts, with the tokens it takes and
  // the number of a lazy section; sNone when the token is no keyword.
  Section keywordAt(int k, int* width = nullptr, int* lazyValue = nullptr) {
    Token& t = peek(k);
    if (t.eof || !t.lineStart || isLabel(t)) return sNone;
    if (is(k + 1, ":")) return sNone;
    const char* w = t.text;
    int used = 1;
    Section sec = sNone;
    auto any = [&](std::initializer_list<const char*> words) {
      for (const char* x : words)
        if (strcasecmp(w, x) == 0) return true;
      return false;
    };
    if (any({"minimize", "minimum", "min", "maximize", "maximum", "max"})) {
      sec = sObjective;
    } else if (any({"st", "s.t.", "st."})) {
      sec = sConstraints;
    } else if ((strcasecmp(w, "subject") == 0 && isi(k + 1, "to")) ||
               (strcasecmp(w, "such") == 0 && isi(k + 1, "that"))) {
      sec = sConstraints;
      used = 2;
    } else if (strcasecmp(w, "lazy") == 0 && isi(k + 1, "constraints")) {
      sec = sLazy;
      used = 2;
      int v = 1;
      Token& num = peek(k + 2);
      if (!num.eof && num.line == peek(k + 1).line &&
          (is(k + 2, "1") || is(k + 2, "2") || is(k + 2, "3"))) {
        v = num.text[0] - '0';
        used = 3;
      }
      if (lazyValue) *lazyValue = v;
    } else if (strcasecmp(w, "general") == 0 &&
               (isi(k + 1, "constraints") || isi(k + 1, "constraint"))) {
      sec = sGenConstrs;
      used = 2;
    } else if (any({"gencons", "g.c."})) {
      sec = sGenConstrs;
    } else if (any({"cones"})) {
      sec = sCones;
    } else if (any({"bounds", "bound"})) {
      sec = sBounds;
    } else if (any({"binary", "binaries", "bin"})) {
      sec = sBinaries;
    } else if (any({"general", "generals", "gen", "integer", "integers"})) {
      sec = sIntegers;
    } else if (any({"semi-continuous", "semis", "semi"})) {
      sec = sSemis;
    } else if (any({"sos"})) {
      sec = sSos;
    } else if (any({"pwlobj"})) {
      sec = sPwl;
    } else if (any({"end"})) {
      sec = sEnd;
    }
    if (width) *width = used;
    return sec;
  }
  bool atKeyword() { return keywordAt(0) != sNone; }
  bool atEndOfSection() { return peek(0).eof || atKeyword(); }

  // A token that can name a variable.
  bool nameToken(const Token& t) {
    if (t.eof || isLabel(t)) return false;
    const char* x = t.text;
    return !isSign(x) && !senseOf(x) && std::strcmp(x, "[") && std::strcmp(x, "]") &&
           std::strcmp(x, "->") && std::strcmp(x, ":") && std::strcmp(x, "::") &&
           std::strcmp(x, "^") && std::strcmp(x, "*") && std::strcmp(x, "/");
  }

  // ------------------------------------------------------------ variables

  int64_t store(const char* name) {
    int64_t at = static_cast<int64_t>(arena.size());
    size_t n = std::strlen(name) + 1;
    arena.reserve(arena.size() + n);
    for (size_t i = 0; i < n; ++i) arena.push_back(name[i]);
    return at;
  }
  int64_t storeLabel(const char* label) {
    char tmp[kMaxToken + 2];
    size_t n = std::strlen(label);
    std::memcpy(tmp, label, n + 1);
    if (n > 0 && tmp[n - 1] == ':') tmp[n - 1] = '\0';
    return store(tmp);
  }
  int numVars() const { return static_cast<int>(obj.size()); }
  int findVar(const char* name) const { return nameIndexFind(varIdx, name); }
  int var(const char* name) {
    int j = findVar(name);
    if (j >= 0) return j;
    j = numVars();
    if (j >= kMaxInt) fail("Too many variables");
    if (nameIndexInsert(env, varIdx, name, j)) throw std::bad_alloc();
    varName.push_back(store(name));
    obj.push_back(0.0);
    lb.push_back(0.0);
    ub.push_back(kInf);
    vflags.push_back(0);
    stamp.push_back(0);
    slot.push_back(0);
    return j;
  }

  void warnNumericName(const char* t) {
    if (warnedNumeric) return;
    warnedNumeric = true;
    log(env, "Warning: Numeric variable name in LP file ('%s') - often the result\n", t);
    log(env, "         of a constant term in the left-hand side of a constraint.\n");
  }

  // ---------------------------------------------------------- expressions

  void startExpr() {
    xVar.clear();
    xVal.clear();
    xQI.clear();
    xQJ.clear();
    xQV.clear();
    xConst = 0.0;
  }

  bool isConstantName(const char* t, ExprMode mode) {
    if (std::strncmp(t, "Constant", 8) != 0) return false;
    if (t[8] == '\0') return true;
    if (mode != eMulti) return false;
    for (const char* p = t + 8; *p; ++p)
      if (*p < '0' || *p > '9') return false;
    return true;
  }

  // The bracket of a quadratic part; the objective's is halved by "/ 2".
  void quadratic(double sign, bool objective) {
    consume();  // "["
    bool first = true;
    for (;;) {
      if (atEndOfSection()) fail("Quadratic expression terminated too early");
      if (is(0, "]")) {
        consume();
        break;
      }
      double s = sign;
      double c = 1.0;
      if (isSign(peek(0).text)) {
        if (peek(0).text[0] == '-') s = -s;
        consume();
      } else if (!first && !((peek(0).text[0] == '+' || peek(0).text[0] == '-') &&
                             termNumber(peek(0).text, &c))) {
        fail("Malformed quadratic term in expression");
      }
      if (atEndOfSection()) fail("Quadratic expression terminated too early");
      if (termNumber(peek(0).text, &c)) {
        consume();
      } else {
        c = 1.0;
      }
      if (atEndOfSection()) fail("Quadratic expression terminated too early");
      if (!nameToken(peek(0))) fail("Unrecognized token in quadratic expression");
      int a = var(peek(0).text);
      consume();
      if (atEndOfSection()) fail("Quadratic expression terminated too early");
      int b;
      if (is(0, "^")) {
        consume();
        if (!is(0, "2")) fail("Malformed quadratic term in expression");
        consume();
        b = a;
      } else if (is(0, "*")) {
        consume();
        if (atEndOfSection()) fail("Quadratic expression terminated too early");
        if (!nameToken(peek(0))) fail("Malformed quadratic term in expression");
        b = var(peek(0).text);
        consume();
      } else {
        fail("Malformed quadratic term in expression");
      }
      xQI.push_back(a);
      xQJ.push_back(b);
      xQV.push_back(s * c);
      first = false;
    }
    if (objective) {
      if (is(0, "/2")) {
        consume();
      } else if (is(0, "/") && is(1, "2")) {
        consume();
        consume();
      } else {
        fail("Malformed quadratic term in expression");
      }
      for (size_t k = 0; k < xQV.size(); ++k) xQV[k] *= 0.5;
    }
  }

  // Terms up to the end of the expression: a sense in a constraint, a new
  // entry's label in several objectives, a keyword, or the end of the text.
  // With openEnd an expression also ends where a term is not followed by a
  // sign: "value sense expression" needs nothing behind it.
  void expression(ExprMode mode, EnvVec<int>* pwlVars, bool openEnd = false) {
    const bool constraint = mode == eConstraint || mode == eIndicator;
    bool first = true;
    for (;;) {
      Token& t = peek(0);
      if (t.eof || atKeyword()) return;
      if (openEnd && !first && !isSign(t.text) &&
          !((t.text[0] == '+' || t.text[0] == '-') && lpNumberLike(t.text)))
        return;
      if (constraint && senseOf(t.text)) return;
      if (isLabel(t)) {
        if (mode == eMulti) return;
        if (constraint) fail("Incomplete constraint");
        fail("Unexpected symbol");
      }
      double sign = 1.0;
      double coef = 1.0;
      bool haveCoef = false;
      if (isSign(t.text)) {
        sign = t.text[0] == '-' ? -1.0 : 1.0;
        consume();
      } else if (!first) {
        // "x -2 y": a signed number stands for its sign.
        if ((t.text[0] == '+' || t.text[0] == '-') && termNumber(t.text, &coef)) {
          haveCoef = true;
          consume();
        } else if (constraint) {
          fail("Unrecognized constraint RHS or sense");
        } else if (senseOf(t.text)) {
          fail("Unexpected symbol");
        } else {
          fail("Malformed term in expression");
        }
      }
      if (!haveCoef) {
        Token& u = peek(0);
        if (u.eof || atKeyword()) {
          if (constraint) fail("Incomplete constraint");
          fail("Malformed term in expression");
        }
        if (is(0, "[")) {
          if (mode == eMulti)
            fail("Multi-objective supports only linear objectives not quadratic (or piecewise-linear)");
          if (mode == eIndicator) fail("Indicator constraint has to be linear");
          quadratic(sign, mode == eObjective);
          first = false;
          continue;
        }
        if (strncasecmp(u.text, "__pwl(", 6) == 0) {
          if (mode == eMulti)
            fail("Multi-objective supports only linear objectives not quadratic (or piecewise-linear)");
          if (mode != eObjective) fail("Malformed term in expression");
          pwlTerm(pwlVars);
          first = false;
          continue;
        }
        if (termNumber(u.text, &coef)) {
          haveCoef = true;
          consume();
        }
      }
      coef *= sign;
      if (haveCoef) {
        Token& v = peek(0);
        // A number that ends its term is a constant.
        if (v.eof || atKeyword() || isSign(v.text) || isLabel(v) || is(0, "[") || senseOf(v.text)) {
          xConst += coef;
          first = false;
          continue;
        }
        double ignored;
        if (termNumber(v.text, &ignored)) warnNumericName(v.text);
      }
      if (!nameToken(peek(0))) fail("Malformed term in expression");
      const char* name = peek(0).text;
      if (isConstantName(name, mode)) {
        xConst += coef;
      } else {
        xVar.push_back(var(name));
        xVal.push_back(coef);
      }
      consume();
      first = false;
    }
  }

  // "__pwl(x)" as one token, or "__pwl(" "x" ")", or "__pwl(x" ")".
  void pwlTerm(EnvVec<int>* pwlVars) {
    char name[kMaxToken + 2];
    std::snprintf(name, sizeof name, "%s", peek(0).text + 6);
    consume();
    size_t n = std::strlen(name);
    if (n > 0 && name[n - 1] == ')') {
      name[n - 1] = '\0';
    } else {
      if (n == 0) {
        if (!nameToken(peek(0))) fail("Malformed term in expression");
        std::snprintf(name, sizeof name, "%s", peek(0).text);
        consume();
      }
      if (!is(0, ")")) fail("Malformed term in expression");
      consume();
    }
    if (!name[0]) fail("Malformed term in expression");
    int j = var(name);
    if (pwlVars) pwlVars->push_back(j);
  }

  // Groups repeated variables of the expression's linear part, drops what
  // cancels or is too small, and appends the rest to the given lists.
  void commitLinear(EnvVec<int>& outVar, EnvVec<double>& outVal, bool countRepeats) {
    ++stampId;
    const int64_t beg = static_cast<int64_t>(outVar.size());
    EnvVec<unsigned char>& merged = xMerged;
    merged.clear();
    for (size_t k = 0; k < xVar.size(); ++k) {
      const int j = xVar[k];
      const size_t c = static_cast<size_t>(j);
      if (stamp[c] == stampId) {
        outVal[static_cast<size_t>(slot[c])] += xVal[k];
        merged[static_cast<size_t>(slot[c] - beg)] = 1;
        if (countRepeats) ++repeated;
        continue;
      }
      stamp[c] = stampId;
      slot[c] = static_cast<int64_t>(outVar.size());
      outVar.push_back(j);
      outVal.push_back(xVal[k]);
      merged.push_back(0);
    }
    const double zero = env->par.VORN_PAR_ZERO;
    size_t out = static_cast<size_t>(beg);
    for (size_t k = static_cast<size_t>(beg); k < outVar.size(); ++k) {
      const double v = outVal[k];
      if (merged[k - static_cast<size_t>(beg)] && v == 0.0) {
        ++cancelled;
        continue;
      }
      if (std::fabs(v) <= zero) {
        ++small;
        continue;
      }
      outVar[out] = outVar[k];
      outVal[out] = v;
      ++out;
    }
    outVar.resize(out);
    outVal.resize(out);
  }

  // ------------------------------------------------------------ sections

  void objective() {
    // "Minimize multi-objectives" on the keyword's line.
    Token& t = peek(0);
    if (!t.eof && !t.lineStart &&
        (strcasecmp(t.text, "_multi-objectives") == 0 || strcasecmp(t.text, "multi-objectives") == 0)) {
      consume();
      multi = true;
      multiObjectives();
      return;
    }
    if (isLabel(peek(0)) && !atKeyword()) {
      consume();
    } else if (nameToken(peek(0)) && is(1, ":") && !atKeyword()) {
      consume();
      consume();
    }
    startExpr();
    EnvVec<int> pwlVars(env);
    expression(eObjective, &pwlVars);
    for (size_t k = 0; k < xVar.size(); ++k) obj[static_cast<size_t>(xVar[k])] += xVal[k];
    objCon += xConst;
    const double zero = env->par.VORN_PAR_ZERO;
    for (size_t k = 0; k < xQV.size(); ++k) {
      if (std::fabs(xQV[k]) < zero) {
        smallQ = true;
        continue;
      }
      qObjI.push_back(xQI[k]);
      qObjJ.push_back(xQJ[k]);
      qObjV.push_back(xQV[k]);
    }
  }

  // One "Key=value" of a multi-objective entry, spaced or not.
  double objKey(const char* key, bool integral) {
    const char* type = integral ? "integer" : "double";
    if (atEndOfSection() || isLabel(peek(0))) fail("Missing '%s' keyword", key);
    const char* t = peek(0).text;
    size_t k = std::strlen(key);
    if (strncasecmp(t, key, k) != 0) fail("Missing '%s' keyword", key);
    char value[kMaxToken + 2];
    value[0] = '\0';
    if (t[k] == '\0') {
      consume();
      if (!is(0, "=") && peek(0).text[0] != '=') fail("Missing '=' after '%s' keyword", key);
      if (is(0, "=")) {
        consume();
      } else {
        std::snprintf(value, sizeof value, "%s", peek(0).text + 1);
        consume();
      }
    } else if (t[k] != '=') {
      fail("Missing '=' after '%s' keyword", key);
    } else {
      std::snprintf(value, sizeof value, "%s", t + k + 1);
      consume();
    }
    if (!value[0]) {
      if (atEndOfSection() || isLabel(peek(0))) fail("Missing %s value after '%s' keyword", type, key);
      std::snprintf(value, sizeof value, "%s", peek(0).text);
      consume();
    }
    char* end = nullptr;
    double v;
    if (integral) {
      long x = std::strtol(value, &end, 10);
      v = static_cast<double>(x);
    } else {
      v = std::strtod(value, &end);
    }
    if (!end || *end != '\0' || end == value) fail("Invalid %s value after '%s' keyword", type, key);
    return v;
  }

  void multiObjectives() {
    while (!atEndOfSection()) {
      Token& t = peek(0);
      int64_t name;
      if (isLabel(t)) {
        name = storeLabel(t.text);
        consume();
      } else if (nameToken(t) && is(1, ":")) {
        name = store(t.text);
        consume();
        consume();
      } else {
        fail("Missing ':' after objective name");
      }
      ObjItem o{};
      o.name = name;
      o.priority = static_cast<int>(objKey("Priority", true));
      o.weight = objKey("Weight", false);
      o.absTol = objKey("AbsTol", false);
      o.relTol = objKey("RelTol", false);
      startExpr();
      expression(eMulti, nullptr);
      o.beg = static_cast<int64_t>(objVar.size());
      commitLinear(objVar, objVal, false);
      o.count = static_cast<int>(static_cast<int64_t>(objVar.size()) - o.beg);
      o.constant = xConst;
      objs.push_back(o);
    }
  }

  // The right-hand side: a number, an infinity, or a sign and a number.
  double rhsValue() {
    if (atEndOfSection() || isLabel(peek(0))) fail("Incomplete constraint");
    double v;
    if (isSign(peek(0).text) && numberValue(peek(1).text, &v)) {
      double s = peek(0).text[0] == '-' ? -1.0 : 1.0;
      consume();
      consume();
      return s * v;
    }
    if (!numberValue(peek(0).text, &v)) fail("Unrecognized constraint RHS or sense");
    consume();
    return v;
  }

  char takeSense() {
    if (atEndOfSection() || isLabel(peek(0))) fail("Incomplete constraint");
    char s = senseOf(peek(0).text);
    if (!s) fail("Unrecognized constraint RHS or sense");
    if (s == 'E') {
      if (!warnedEqEq) log(env, "Warning: At least one constraint uses '==' instead of '=' as sense.\n");
      warnedEqEq = true;
      s = '=';
    }
    consume();
    return s;
  }

  void addRow(int64_t name, char sense, double rhs, double range, int lazy) {
    rowName.push_back(name);
    rowSense.push_back(sense);
    rowRhs.push_back(rhs);
    rowRange.push_back(range);
    rowLazy.push_back(lazy);
    rowBeg.push_back(static_cast<int64_t>(entVar.size()));
    commitLinear(entVar, entVal, true);
  }

  void constraint(int lazy) {
    int64_t name = -1;
    if (isLabel(peek(0))) {
      name = storeLabel(peek(0).text);
      consume();
    } else if (nameToken(peek(0)) && is(1, ":")) {
      name = store(peek(0).text);
      consume();
      consume();
    }
    startExpr();
    // Indicator: "b = 1 -> row".
    if (is(3, "->")) {
      const char* bin = peek(0).text;
      double ignored;
      if (termNumber(bin, &ignored)) log(env, "Warning: read number '%s' as indicator variable name\n", bin);
      if (!nameToken(peek(0))) fail("Malformed term in expression");
      if (!is(1, "=") && !is(1, "==")) {
        consume();
        fail("Invalid sense in indicator expression (expected '=')");
      }
      if (!is(2, "0") && !is(2, "1")) {
        consume();
        consume();
        fail("Invalid binary value in indicator expression (expected '1' or '0')");
      }
      GenItem g{};
      g.type = VRX_GENCONSTR_INDICATOR;
      g.name = name;
      g.res = var(bin);
      g.binValue = peek(2).text[0] - '0';
      for (int k = 0; k < 4; ++k) consume();
      expression(eIndicator, nullptr);
      g.sense = takeSense();
      g.rhs = rhsValue() - xConst;
      g.beg = static_cast<int64_t>(genVar.size());
      commitLinear(genVar, genVal, true);
      g.count = static_cast<int>(static_cast<int64_t>(genVar.size()) - g.beg);
      gens.push_back(g);
      return;
    }
    // "lo <= expr <= hi", or "value sense expr".
    double lead;
    if (numberValue(peek(0).text, &lead) && senseOf(peek(1).text)) {
      consume();
      char s1 = takeSense();
      expression(eConstraint, nullptr, true);
      if (!xQV.empty()) fail("Unrecognized constraint RHS or sense");
      lead -= xConst;
      if (!atEndOfSection() && senseOf(peek(0).text)) {
        char s2 = takeSense();
        double last = rhsValue() - xConst;
        if (s1 != s2 || s1 == '=') fail("Unrecognized constraint RHS or sense");
        double lo = s1 == '<' ? lead : last, hi = s1 == '<' ? last : lead;
        if (lo <= -kInf && hi >= kInf) {
          addRow(name, '<', kInf, -1.0, lazy);
        } else if (lo <= -kInf) {
          addRow(name, '<', hi, -1.0, lazy);
        } else if (hi >= kInf) {
          addRow(name, '>', lo, -1.0, lazy);
        } else if (lo == hi) {
          addRow(name, '=', hi, -1.0, lazy);
        } else {
          addRow(name, '=', hi, hi - lo, lazy);
        }
        return;
      }
      char flipped = s1 == '<' ? '>' : (s1 == '>' ? '<' : '=');
      addRow(name, flipped, lead, -1.0, lazy);
      return;
    }
    if (senseOf(peek(0).text) == 0) expression(eConstraint, nullptr);
    char sense = takeSense();
    double rhs = rhsValue() - xConst;
    if (xQV.empty()) {
      addRow(name, sense, rhs, -1.0, lazy);
      return;
    }
    if (lazy > 0) log(env, "Lazy constraints must be linear - ignoring lazy designation\n");
    QCItem q{};
    q.name = name;
    q.sense = sense;
    q.rhs = rhs;
    q.linBeg = static_cast<int64_t>(qcLinVar.size());
    q.quadBeg = static_cast<int64_t>(qcQI.size());
    commitLinear(qcLinVar, qcLinVal, true);
    for (size_t k = 0; k < xQV.size(); ++k) {
      qcQI.push_back(xQI[k]);
      qcQJ.push_back(xQJ[k]);
      qcQV.push_back(xQV[k]);
    }
    qcs.push_back(q);
  }

  void cone() {
    if (isLabel(peek(0))) consume();
    EnvVec<int> members(env);
    bool unknown = false;
    int startLine = peek(0).line;
    while (!atEndOfSection() && !isLabel(peek(0)) && (peek(0).line == startLine || !peek(0).lineStart)) {
      int j = findVar(peek(0).text);
      if (j < 0) {
        log(env, "Warning: unknown variable '%s' in cone section\n", peek(0).text);
        unknown = true;
      }
      members.push_back(j);
      consume();
    }
    if (unknown || members.size() < 2) return;
    coneBeg.push_back(static_cast<int>(coneVar.size()));
    for (size_t k = 0; k < members.size(); ++k) coneVar.push_back(members[k]);
  }

  void applyBound(const char* name, char sense, double v) {
    int j = findVar(name);
    if (j < 0) {
      // The writer's line for the objective constant.
      if (!isConstantName(name, eMulti))
        log(env, "Warning: unknown variable '%s' in bounds section\n", name);
      return;
    }
    size_t c = static_cast<size_t>(j);
    if (sense == '<' || sense == '=') {
      ub[c] = v;
      vflags[c] |= fUbSet;
    }
    if (sense == '>' || sense == '=') {
      lb[c] = v;
      vflags[c] |= fLbSet;
    }
  }

  void bound() {
    double v1, v2;
    char name[kMaxToken + 2];
    if (numberValue(peek(0).text, &v1)) {
      consume();
      char s1 = senseOf(peek(0).text);
      if (!s1 || peek(0).eof) fail("Unrecognized variable bound");
      consume();
      if (!nameToken(peek(0)) || atKeyword()) fail("Unrecognized variable bound");
      std::snprintf(name, sizeof name, "%s", peek(0).text);
      consume();
      if (s1 == 'E') s1 = '=';
      char flip = s1 == '<' ? '>' : (s1 == '>' ? '<' : '=');
      if (!peek(0).eof && !peek(0).lineStart && senseOf(peek(0).text)) {
        char s2 = senseOf(peek(0).text);
        consume();
        if (!numberValue(peek(0).text, &v2)) fail("Unrecognized variable bound");
        consume();
        applyBound(name, flip, v1);
        applyBound(name, s2 == 'E' ? '=' : s2, v2);
        return;
      }
      applyBound(name, flip, v1);
      return;
    }
    if (!nameToken(peek(0))) fail("Unrecognized variable bound");
    std::snprintf(name, sizeof name, "%s", peek(0).text);
    consume();
    if (is(0, "free") || is(0, "FREE") || is(0, "Free")) {
      consume();
      applyBound(name, '<', kInf);
      applyBound(name, '>', -kInf);
      return;
    }
    char s = senseOf(peek(0).text);
    if (!s || peek(0).eof) fail("Unrecognized variable bound");
    consume();
    if (!numberValue(peek(0).text, &v1)) fail("Unrecognized variable bound");
    consume();
    applyBound(name, s == 'E' ? '=' : s, v1);
  }

  void typeList(Section sec) {
    const char* word = sec == sBinaries ? "binary" : (sec == sIntegers ? "integer" : "semi-continuous");
    unsigned char flag = sec == sBinaries ? fBinary : (sec == sIntegers ? fInteger : fSemi);
    while (!atEndOfSection()) {
      int j = findVar(peek(0).text);
      if (j < 0)
        log(env, "Warning: unknown variable '%s' in %s section\n", peek(0).text, word);
      else
        vflags[static_cast<size_t>(j)] |= flag;
      consume();
    }
  }

  static bool sosTypeWord(const char* t) { return !strcasecmp(t, "S1") || !strcasecmp(t, "S2"); }

  void sos() {
    if (isLabel(peek(0))) consume();
    if (is(0, "::")) fail("Missing type for SOS constraint");
    if (!sosTypeWord(peek(0).text)) fail("Malformed SOS term");
    int type = peek(0).text[1] - '0';
    consume();
    if (!is(0, "::")) fail("Malformed SOS term");
    consume();
    sosType.push_back(type);
    sosBeg.push_back(static_cast<int>(sosVar.size()));
    for (;;) {
      if (atEndOfSection()) return;
      Token& t = peek(0);
      if (sosTypeWord(t.text) || is(0, "::")) return;
      if (!isLabel(t)) fail("Malformed SOS term");
      if (sosTypeWord(peek(1).text) || is(1, "::")) return;  // the next set's label
      double w;
      if (!numberValue(peek(1).text, &w)) fail("Malformed SOS term");
      char name[kMaxToken + 2];
      std::snprintf(name, sizeof name, "%s", t.text);
      name[std::strlen(name) - 1] = '\0';
      sosVar.push_back(var(name));
      sosWeight.push_back(w);
      consume();
      consume();
    }
  }

  void pwl() {
    if (!isLabel(peek(0))) fail("Malformed PWL term");
    char name[kMaxToken + 2];
    std::snprintf(name, sizeof name, "%s", peek(0).text);
    name[std::strlen(name) - 1] = '\0';
    consume();
    // The points, whatever their spacing: "(x, y) (x, y) ...".
    EnvVec<char> text(env);
    while (!atEndOfSection() && !isLabel(peek(0))) {
      for (const char* p = peek(0).text; *p; ++p) text.push_back(*p);
      text.push_back(' ');
      consume();
    }
    text.push_back('\0');
    atLast = true;
    PwlItem item{};
    item.var = var(name);
    item.beg = static_cast<int64_t>(pwlX.size());
    const char* p = text.data();
    auto blanks = [&] {
      while (*p == ' ') ++p;
    };
    auto number = [&](double* v) {
      blanks();
      char* end = nullptr;
      *v = std::strtod(p, &end);
      if (end == p) fail("Malformed PWL term");
      p = end;
    };
    auto expect = [&](char c) {
      blanks();
      if (*p != c) fail("Malformed PWL term");
      ++p;
    };
    blanks();
    if (!*p) fail("Malformed PWL term");
    while (*p) {
      double x, y;
      expect('(');
      number(&x);
      expect(',');
      number(&y);
      expect(')');
      pwlX.push_back(x);
      pwlY.push_back(y);
      ++item.count;
      blanks();
    }
    atLast = false;
    pwls.push_back(item);
  }

  void genConstr() {
    int64_t name = -1;
    if (isLabel(peek(0))) {
      name = storeLabel(peek(0).text);
      consume();
    }
    if (is(0, "::") || is(1, "::")) fail("Error, read empty general constraint or wrongly placed '::'");
    auto readText = [&]() -> const char* { return peek(0).eof ? "<EOF>" : peek(0).text; };
    if (!nameToken(peek(0)) || atKeyword()) fail("Missing '=' after resultant variable, read %s", readText());
    double ignored;
    if (termNumber(peek(0).text, &ignored))
      log(env, "Warning: read number '%s' as resultant variable\n", peek(0).text);
    GenItem g{};
    g.name = name;
    g.res = var(peek(0).text);
    consume();
    if (!is(0, "=")) fail("Missing '=' after resultant variable, read %s", readText());
    consume();
    const char* type = peek(0).text;
    if (!strcasecmp(type, "MAX")) {
      g.type = VRX_GENCONSTR_MAX;
    } else if (!strcasecmp(type, "MIN")) {
      g.type = VRX_GENCONSTR_MIN;
    } else if (!strcasecmp(type, "ABS")) {
      g.type = VRX_GENCONSTR_ABS;
    } else if (!strcasecmp(type, "AND")) {
      g.type = VRX_GENCONSTR_AND;
    } else if (!strcasecmp(type, "OR")) {
      g.type = VRX_GENCONSTR_OR;
    } else if (!strcasecmp(type, "INDICATOR") || !strcasecmp(type, "PWL") ||
               !strcasecmp(type, "POLY")) {
      fail("Parsing of this general constraint type not implemented");
    } else {
      fail("Unknown general constraint type '%s'", readText());
    }
    consume();
    if (!is(0, "(")) fail("Missing ' ( ' in general constraint, read '%s'", readText());
    consume();
    const bool withConstant = g.type == VRX_GENCONSTR_MAX || g.type == VRX_GENCONSTR_MIN;
    g.constant = g.type == VRX_GENCONSTR_MAX ? -kInf : kInf;
    g.beg = static_cast<int64_t>(genVar.size());
    if (is(0, ")")) {
      consume();
    } else {
      for (;;) {
        if (peek(0).eof) fail("Missing separator ' , ' or end ' ) ' in general constraint, read '%s'", "<EOF>");
        const char* t = peek(0).text;
        double v;
        if (withConstant && numberValue(t, &v)) {
          g.constant = g.type == VRX_GENCONSTR_MAX ? std::fmax(g.constant, v) : std::fmin(g.constant, v);
        } else {
          if (termNumber(t, &v)) log(env, "Warning: read number '%s' as operand variable\n", t);
          if (g.type == VRX_GENCONSTR_ABS && g.count == 1)
            fail("General ABS constraint can only have one operand variable, read '%s'", t);
          genVar.push_back(var(t));
          genVal.push_back(1.0);
          ++g.count;
        }
        consume();
        if (is(0, ",")) {
          consume();
          continue;
        }
        if (is(0, ")")) {
          consume();
          break;
        }
        fail("Missing separator ' , ' or end ' ) ' in general constraint, read '%s'", readText());
      }
    }
    atLast = true;
    if (g.type == VRX_GENCONSTR_ABS && g.count == 0) fail("Error, read general ABS constraint with no operands");
    if (withConstant && g.count == 0 && std::fabs(g.constant) >= kInf)
      fail("Error, read general MIN or MAX constraint with no operands and no finite constant");
    atLast = false;
    gens.push_back(g);
  }

  void duplicateSection(Section sec, const char* word, int lazyValue) {
    bool dup = sec == sLazy ? lazySeen[lazyValue] : seen[sec];
    if (sec == sLazy)
      lazySeen[lazyValue] = true;
    else
      seen[sec] = true;
    if (!dup) return;
    if (dupWarnings < kDupWarnings)
      log(env, "Warning: Duplicate section found (read '%s') - Is a variable name equal to an LP file format keyword?\n",
          word);
    else if (dupWarnings == kDupWarnings)
      log(env, "Warning: Further warnings of this type will be omitted.\n");
    ++dupWarnings;
  }

  void run() {
    buf = static_cast<char*>(envMalloc(env, kReadBuf));
    varIdx = nameIndexCreate(env, 1000, true);
    if (!buf || !varIdx) throw std::bad_alloc();
    if (keywordAt(0) == sNone) fail("LP format file must begin with a keyword");
    while (!peek(0).eof) {
      int width = 1, lazyValue = 1;
      Section sec = keywordAt(0, &width, &lazyValue);
      if (sec == sNone) fail("Unexpected symbol");
      char word[kMaxToken + 2];
      std::snprintf(word, sizeof word, "%s", peek(0).text);
      if (sec == sObjective) objSense = (word[1] == 'a' || word[1] == 'A') ? -1 : 1;
      for (int k = 0; k < width; ++k) consume();
      if (sec == sEnd) break;
      duplicateSection(sec, word, lazyValue);
      switch (sec) {
        case sObjective: objective(); break;
        case sConstraints: while (!atEndOfSection()) constraint(0); break;
        case sLazy: while (!atEndOfSection()) constraint(lazyValue); break;
        case sCones: while (!atEndOfSection()) cone(); break;
        case sBounds: while (!atEndOfSection()) bound(); break;
        case sBinaries:
        case sIntegers:
        case sSemis: typeList(sec); break;
        case sSos: while (!atEndOfSection()) sos(); break;
        case sPwl: while (!atEndOfSection()) pwl(); break;
        case sGenConstrs: while (!atEndOfSection()) genConstr(); break;
        default: break;
      }
    }
  }
};

// Runs a call on the new model; a failure moves its text to the caller.
int extra(VRXenv* env, VRXmodel* model, int rc) {
  if (rc == 0) return 0;
  if (rc == VRX_ERROR_OUT_OF_MEMORY) throw std::bad_alloc();
  const char* text = model->env->errorText;
  return raise(env, rc, true, "%s", text && text[0] ? text : errorTableText(rc));
}

// The load and the parts the load does not take.
int build(VRXenv* env, Reader& rd, VRXmodel** out) {
  const int n0 = rd.numVars();
  const int m = static_cast<int>(rd.rowSense.size());
  int ranges = 0;
  for (int i = 0; i < m; ++i) ranges += rd.rowRange[static_cast<size_t>(i)] >= 0.0 ? 1 : 0;
  const int n = n0 + ranges;
  const size_t nn = static_cast<size_t>(n) + 1;

  // Slack columns of range rows, named as the row's range: "Rg" and its name.
  EnvVec<int64_t> names(env);
  names.resize(nn, -1);
  for (int j = 0; j < n0; ++j) names[static_cast<size_t>(j)] = rd.varName[static_cast<size_t>(j)];
  EnvVec<int> slackOf(env);
  slackOf.resize(static_cast<size_t>(m) + 1, -1);
  for (int i = 0, j = n0; i < m; ++i) {
    if (rd.rowRange[static_cast<size_t>(i)] < 0.0) continue;
    char nm[kMaxToken + 32];
    int64_t rn = rd.rowName[static_cast<size_t>(i)];
    if (rn >= 0)
      std::snprintf(nm, sizeof nm, "Rg%s", rd.arena.data() + rn);
    else
      std::snprintf(nm, sizeof nm, "RgR%d", i);
    names[static_cast<size_t>(j)] = rd.store(nm);
    slackOf[static_cast<size_t>(i)] = j++;
  }

  // Columns by counting.
  EnvVec<int> len(env);
  len.resize(nn, 0);
  const size_t ne = rd.entVar.size();
  for (size_t k = 0; k < ne; ++k) ++len[static_cast<size_t>(rd.entVar[k])];
  for (int i = 0; i < m; ++i)
    if (slackOf[static_cast<size_t>(i)] >= 0) ++len[static_cast<size_t>(slackOf[static_cast<size_t>(i)])];
  EnvVec<size_t> beg(env);
  beg.resize(nn, 0);
  for (int j = 0; j < n; ++j) beg[static_cast<size_t>(j) + 1] = beg[static_cast<size_t>(j)] + static_cast<size_t>(len[static_cast<size_t>(j)]);
  EnvVec<size_t> at(env);
  at.resize(nn, 0);
  for (size_t j = 0; j < nn; ++j) at[j] = beg[j];
  EnvVec<int> ind(env);
  EnvVec<double> val(env);
  ind.resize(beg[static_cast<size_t>(n)] + 1, 0);
  val.resize(beg[static_cast<size_t>(n)] + 1, 0.0);
  EnvVec<double> rhs(env);
  rhs.resize(static_cast<size_t>(m) + 1, 0.0);
  for (int i = 0; i < m; ++i) {
    const size_t r = static_cast<size_t>(i);
    const int64_t b = rd.rowBeg[r];
    const int64_t e = i + 1 < m ? rd.rowBeg[r + 1] : static_cast<int64_t>(ne);
    for (int64_t k = b; k < e; ++k) {
      size_t p = at[static_cast<size_t>(rd.entVar[static_cast<size_t>(k)])]++;
      ind[p] = i;
      val[p] = rd.entVal[static_cast<size_t>(k)];
    }
    rhs[r] = rd.rowRhs[r];
    if (slackOf[r] >= 0) {
      size_t p = at[static_cast<size_t>(slackOf[r])]++;
      ind[p] = i;
      val[p] = 1.0;
    }
  }

  EnvVec<double> obj(env), lb(env), ub(env);
  EnvVec<char> vtype(env);
  obj.resize(nn, 0.0);
  lb.resize(nn, 0.0);
  ub.resize(nn, kInf);
  vtype.resize(nn, 'C');
  for (int j = 0; j < n0; ++j) {
    const size_t c = static_cast<size_t>(j);
    const unsigned char f = rd.vflags[c];
    obj[c] = rd.obj[c];
    lb[c] = rd.lb[c];
    ub[c] = rd.ub[c];
    if (f & fBinary) {
      vtype[c] = 'B';
      // Bounds given in the file stand; the load keeps them inside [0, 1].
      if (!(f & (fLbSet | fUbSet))) {
        lb[c] = 0.0;
        ub[c] = 1.0;
      }
    } else if ((f & fInteger) && (f & fSemi)) {
      vtype[c] = 'N';
    } else if (f & fInteger) {
      vtype[c] = 'I';
    } else if (f & fSemi) {
      vtype[c] = 'S';
    }
  }
  for (int i = 0; i < m; ++i)
    if (slackOf[static_cast<size_t>(i)] >= 0) ub[static_cast<size_t>(slackOf[static_cast<size_t>(i)])] = rd.rowRange[static_cast<size_t>(i)];

  EnvVec<const char*> varNames(env), rowNames(env);
  varNames.resize(nn, nullptr);
  for (int j = 0; j < n; ++j) varNames[static_cast<size_t>(j)] = rd.arena.data() + names[static_cast<size_t>(j)];
  rowNames.resize(static_cast<size_t>(m) + 1, nullptr);
  for (int i = 0; i < m; ++i) {
    int64_t rn = rd.rowName[static_cast<size_t>(i)];
    rowNames[static_cast<size_t>(i)] = rn >= 0 ? rd.arena.data() + rn : nullptr;
  }
  EnvVec<char> sense(env);
  sense.resize(static_cast<size_t>(m) + 1, '<');
  for (int i = 0; i < m; ++i) sense[static_cast<size_t>(i)] = rd.rowSense[static_cast<size_t>(i)];

  const int ns = static_cast<int>(rd.sosType.size());
  rd.sosBeg.push_back(static_cast<int>(rd.sosVar.size()));
  // Sets without members still hand the load real member arrays.
  rd.sosVar.reserve(1);
  rd.sosWeight.reserve(1);

  LoadArgs a;
  a.name = rd.modelName >= 0 ? rd.arena.data() + rd.modelName : "";
  a.numVars = n;
  a.numConstrs = m;
  a.objSense = rd.objSense;
  a.objCon = rd.objCon;
  a.obj = obj.data();
  a.sense = sense.data();
  a.rhs = rhs.data();
  a.beg64 = beg.data();
  a.len = len.data();
  a.ind = ind.data();
  a.val = val.data();
  a.lb = lb.data();
  a.ub = ub.data();
  a.vtype = vtype.data();
  a.varNames = varNames.data();
  a.constrNames = rowNames.data();
  a.numQNZs = static_cast<int>(rd.qObjV.size());
  a.qRow = rd.qObjI.data();
  a.qCol = rd.qObjJ.data();
  a.qVal = rd.qObjV.data();
  a.numSOS = ns;
  a.sosType = rd.sosType.data();
  a.sosBeg = rd.sosBeg.data();
  a.sosInd = rd.sosVar.data();
  a.sosWeight = rd.sosWeight.data();
  VRXmodel* model = nullptr;
  int err = modelLoad(env, a, &model);
  if (err) return err;

  // The extras go in as pending changes and one update.
  struct Guard {
    VRXmodel*& m;
    ~Guard() {
      if (m) modelDestroy(m);
    }
  } guard{model};
  auto nameAt = [&](int64_t off) -> const char* { return off >= 0 ? rd.arena.data() + off : nullptr; };
  for (size_t k = 0; k < rd.qcs.size(); ++k) {
    const QCItem& q = rd.qcs[k];
    const int64_t le = k + 1 < rd.qcs.size() ? rd.qcs[k + 1].linBeg : static_cast<int64_t>(rd.qcLinVar.size());
    const int64_t qe = k + 1 < rd.qcs.size() ? rd.qcs[k + 1].quadBeg : static_cast<int64_t>(rd.qcQI.size());
    const bool lin = le > q.linBeg, quad = qe > q.quadBeg;
    err = extra(env, model,
                VRXaddqconstr(model, static_cast<int>(le - q.linBeg), lin ? rd.qcLinVar.data() + q.linBeg : nullptr,
                              lin ? rd.qcLinVal.data() + q.linBeg : nullptr, static_cast<int>(qe - q.quadBeg),
                              quad ? rd.qcQI.data() + q.quadBeg : nullptr, quad ? rd.qcQJ.data() + q.quadBeg : nullptr,
                              quad ? rd.qcQV.data() + q.quadBeg : nullptr, q.sense, q.rhs, nameAt(q.name)));
    if (err) return err;
  }
  for (size_t k = 0; k < rd.gens.size(); ++k) {
    const GenItem& g = rd.gens[k];
    const int* vars = g.count > 0 ? rd.genVar.data() + g.beg : nullptr;
    const char* nm = nameAt(g.name);
    int rc = 0;
    switch (g.type) {
      case VRX_GENCONSTR_MAX: rc = VRXaddgenconstrMax(model, nm, g.res, g.count, vars, g.constant); break;
      case VRX_GENCONSTR_MIN: rc = VRXaddgenconstrMin(model, nm, g.res, g.count, vars, g.constant); break;
      case VRX_GENCONSTR_ABS: rc = VRXaddgenconstrAbs(model, nm, g.res, vars[0]); break;
      case VRX_GENCONSTR_AND: rc = VRXaddgenconstrAnd(model, nm, g.res, g.count, vars); break;
      case VRX_GENCONSTR_OR: rc = VRXaddgenconstrOr(model, nm, g.res, g.count, vars); break;
      default:
        rc = VRXaddgenconstrIndicator(model, nm, g.res, g.binValue, g.count, vars,
                                      rd.genVal.data() + g.beg, g.sense, g.rhs);
        break;
    }
    if ((err = extra(env, model, rc))) return err;
  }
  for (size_t k = 0; k < rd.pwls.size(); ++k) {
    const PwlItem& p = rd.pwls[k];
    err = extra(env, model, VRXsetpwlobj(model, p.var, p.count, rd.pwlX.data() + p.beg, rd.pwlY.data() + p.beg));
    if (err) return err;
  }
  const size_t nc = rd.coneBeg.size();
  for (size_t k = 0; k < nc; ++k) {
    int b = rd.coneBeg[k];
    int e = k + 1 < nc ? rd.coneBeg[k + 1] : static_cast<int>(rd.coneVar.size());
    if ((err = extra(env, model, VRXaddcone(model, e - b, rd.coneVar.data() + b)))) return err;
  }
  for (int i = 0; i < m; ++i)
    if (rd.rowLazy[static_cast<size_t>(i)] > 0)
      if ((err = extra(env, model, stageLazy(model, i, rd.rowLazy[static_cast<size_t>(i)])))) return err;
  if ((err = extra(env, model, modelUpdate(model)))) return err;

  if (rd.multi) {
    const int count = static_cast<int>(rd.objs.size());
    VRXenv* menv = model->env;
    const int saved = menv->par.ObjNumber;
    err = extra(env, model, VRXsetintattr(model, "NumObj", count));
    EnvVec<double> coeffs(env);
    coeffs.resize(nn, 0.0);
    for (int k = 0; k < count && !err; ++k) {
      const ObjItem& o = rd.objs[static_cast<size_t>(k)];
      menv->par.ObjNumber = k;
      for (int j = 0; j < n; ++j) coeffs[static_cast<size_t>(j)] = 0.0;
      for (int p = 0; p < o.count; ++p)
        coeffs[static_cast<size_t>(rd.objVar[static_cast<size_t>(o.beg + p)])] += rd.objVal[static_cast<size_t>(o.beg + p)];
      const double weight = rd.objSense < 0 ? -o.weight : o.weight;
      if (n > 0) err = extra(env, model, VRXsetdblattrarray(model, "ObjN", 0, n, coeffs.data()));
      if (!err) err = extra(env, model, VRXsetdblattr(model, "ObjNCon", o.constant));
      if (!err) err = extra(env, model, VRXsetintattr(model, "ObjNPriority", o.priority));
      if (!err) err = extra(env, model, VRXsetdblattr(model, "ObjNWeight", weight));
      if (!err) err = extra(env, model, VRXsetdblattr(model, "ObjNAbsTol", o.absTol));
      if (!err) err = extra(env, model, VRXsetdblattr(model, "ObjNRelTol", o.relTol));
      if (!err) err = extra(env, model, VRXsetstrattr(model, "ObjNName", nameAt(o.name)));
    }
    menv->par.ObjNumber = saved;
    if (err) return err;
  }
  *out = model;
  model = nullptr;
  return 0;
}

}  // namespace

int lpRead(VRXenv* env, Stream* s, const char* filename, VRXmodel** out) {
  *out = nullptr;
  int err = 0;
  try {
    Reader rd(env);
    rd.s = s;
    rd.file = filename;
    try {
      rd.run();
    } catch (const Failure&) {
      return VRX_ERROR_FILE_READ;
    }
    if (rd.repeated > 0)
      log(env, "Warning: lp file contains %d repeated variable(s) in constraints, grouped them, %d cancellation\n",
          rd.repeated, rd.cancelled);
    if (rd.small > 0)
      log(env, "Warning: lp file contains %d small (<= %g) coefficient(s), ignored\n", rd.small,
          env->par.VORN_PAR_ZERO);
    if (rd.smallQ)
      log(env, "Warning: lp file contains small (< %g) quadratic objective coefficients, ignored\n",
          env->par.VORN_PAR_ZERO);
    err = build(env, rd, out);
  } catch (const std::bad_alloc&) {
    if (*out) {
      modelDestroy(*out);
      *out = nullptr;
    }
    return raise(env, VRX_ERROR_OUT_OF_MEMORY, true, "Out of memory in LP reader");
  }
  return err;
}

}  // namespace vrx
