// Seed files for the fuzzer and its mutator. Together the seeds hold every
// section and record form the readers know, so mutants reach all of them.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz.h"

namespace fuzz {

namespace {

// A data line of the classic fixed columns: fields start at columns 2, 5,
// 15, 25, 40 and 50.
std::string fixed(const char* f1, const char* f2, const char* f3 = "", const char* f4 = "",
                  const char* f5 = "", const char* f6 = "") {
  static const int start[6] = {1, 4, 14, 24, 39, 49};
  const char* f[6] = {f1, f2, f3, f4, f5, f6};
  std::string line;
  for (int k = 0; k < 6; ++k) {
    if (!*f[k]) continue;
    if (line.size() < static_cast<size_t>(start[k])) line.append(static_cast<size_t>(start[k]) - line.size(), ' ');
    line += f[k];
  }
  return line + "\n";
}

}  // namespace

std::vector<std::string> mpsSeeds() {
  std::vector<std::string> seeds;
  // Classic fixed form: blanks inside names, markers, ranges of every sign.
  seeds.push_back(
      "* classic fixed columns\n"
      "NAME          FIXED1\n"
      "OBJSENSE\n"
      "    MAX\n"
      "ROWS\n"
      " N  COST\n"
      " L  LIM 1\n"
      " G  LIM2\n"
      " E  MYEQN\n"
      " E  EQ2\n"
      "COLUMNS\n" +
      fixed("", "MARKER", "'MARKER'", "", "'INTORG'") +
      fixed("", "X 1", "COST", "1.0", "LIM 1", "1.0") + fixed("", "X 1", "LIM2", "1.0") +
      fixed("", "MARKER", "'MARKER'", "", "'INTEND'") +
      fixed("", "X2", "COST", "2.0", "LIM 1", "1.0") + fixed("", "X2", "MYEQN", "-1.0") +
      fixed("", "X3", "COST", "-1.0", "MYEQN", "1.0") + fixed("", "X3", "EQ2", "1.5D+00") +
      fixed("", "X4", "LIM2", "1e-14", "EQ2", "-2") +
      "RHS\n" + fixed("", "RHS", "LIM 1", "4.0", "LIM2", "1.0") +
      fixed("", "RHS", "MYEQN", "7.0", "COST", "-2.5") + fixed("", "RHS", "EQ2", "3") +
      "RANGES\n" + fixed("", "RNG", "LIM 1", "2.5", "MYEQN", "-3.0") + fixed("", "RNG", "EQ2", "4") +
      "BOUNDS\n" + fixed("UP", "BND", "X 1", "4.0") + fixed("MI", "BND", "X2") +
      fixed("UP", "BND", "X2", "1.0") + fixed("LO", "BND", "X3", "-1e30") +
      fixed("PL", "BND", "X3") + fixed("FX", "BND", "X4", "2.0") + "ENDATA\n");
  // Free form with every extension section.
  seeds.push_back(
      "NAME extras\n"
      "OBJSENSE MAX\n"
      "OBJNAME\n"
      "    cost\n"
      "ROWS\n"
      " N  other\n"
      " N  cost\n"
      " L  plain\n"
      " G  ball\n"
      " L  ifrow\n"
      " E  eq\n"
      "LAZYCONS 2\n"
      " G  lazyrow\n"
      "COLUMNS\n"
      "    x0  cost  1  plain  1\n"
      "    x0  lazyrow  2  ifrow  1\n"
      "    x1  plain  2  lazyrow  1\n"
      "    x2  cost  -1  eq  1\n"
      "    x3  ball  1  ifrow  -1\n"
      "    MARKER  'MARKER'  'INTORG'\n"
      "    b4  cost  3\n"
      "    i5  eq  1\n"
      "    MARKER  'MARKER'  'INTEND'\n"
      "    s6  cost  1\n"
      "RHS\n"
      "    RHS1  plain  8  lazyrow  1\n"
      "    RHS1  ball  9  ifrow  2\n"
      "    cost  -4\n"
      "RANGES\n"
      "    RNG  eq  2\n"
      "BOUNDS\n"
      " UP BND1  x0  10\n"
      " LO BND1  x2  -5\n"
      " UP BND1  x2  5\n"
      " BV BND1  b4\n"
      " LI BND1  i5  -3\n"
      " UI BND1  i5  8\n"
      " SC BND1  s6  20\n"
      " SI BND1  x3  7\n"
      " FR BND1  x1\n"
      " UP BND1  x1  1e+30\n"
      "SOS\n"
      " S1 SOS  s0  9\n"
      "    x0  1\n"
      "    x1  2\n"
      " S2 SOS  s1\n"
      "    x1  1\n"
      "    x2  2\n"
      "    x3  3\n"
      "QUADOBJ\n"
      "    x0  x0  2\n"
      "    x0  x1  1\n"
      "QCMATRIX   ball\n"
      "    x0  x0  1\n"
      "    x1  x1  1\n"
      "INDICATORS\n"
      " IF ifrow  b4  1\n"
      "PWLOBJ\n"
      "    s6  0  0\n"
      "    s6  1  2\n"
      "    s6  3  3\n"
      "GENCONS\n"
      " MAX mx\n"
      "    x3\n"
      "    x0\n"
      "    x1\n"
      "    1.5\n"
      " MIN mn\n"
      "    x3\n"
      "    x0\n"
      " ABS ab\n"
      "    x1\n"
      "    x2\n"
      " AND an\n"
      "    b4\n"
      "    b4\n"
      " OR or\n"
      "    b4\n"
      "ENDATA\n");
  // Several objectives, the full quadratic form, the old SOS markers.
  seeds.push_back(
      "NAME multi\n"
      "ROWS\n"
      " N  OBJ\n"
      " N  OBJ0  2 1 0.5 0.01\n"
      " N  OBJ1  1 0.25 0 0\n"
      " L  c1\n"
      " G  c2\n"
      "COLUMNS\n"
      "    x  OBJ  1  c1  1\n"
      "    x  OBJ0  3  c2  1\n"
      "    y  OBJ1  -1  c1  2\n"
      "    MARKER  'MARKER'  'SOSORG'\n"
      "    z  c2  1\n"
      "    w  c2  1\n"
      "    MARKER  'MARKER'  'SOSEND'\n"
      "RHS\n"
      "    RHS1  c1  4  c2  1\n"
      "    RHS1  OBJ0  -2\n"
      "BOUNDS\n"
      " UP BND1  z  1\n"
      " UP BND1  w  1\n"
      "QMATRIX\n"
      "    x  x  2\n"
      "    x  y  1\n"
      "    y  x  1\n"
      "    y  y  4\n"
      "SETS\n"
      " S2 SOS  t\n"
      "    t  x  1\n"
      "    t  y  2\n"
      "ENDATA\n");
  // The smallest file, and a QSECTION with tabs and carriage returns.
  seeds.push_back("NAME\nROWS\n N obj\nCOLUMNS\n x obj 1\nENDATA\n");
  seeds.push_back(
      "NAME\ttabs\r\nROWS\r\n N\tobj\r\n E\tr\r\nCOLUMNS\r\n\tx\tobj\t1\tr\t1\r\n"
      "\ty\tr\t-1\r\nRHS\r\n\trhs\tr\t0.5\r\nQSECTION\r\n\tx\ty\t3\r\n\ty\tx\t3\r\nENDATA\r\n");
  return seeds;
}

std::vector<std::string> lpSeeds() {
  std::vector<std::string> seeds;
  seeds.push_back(
      "\\ Model classic\n"
      "\\ a comment line\n"
      "Maximize\n"
      " obj: 3 x + 2 y - 4 z + 0.5 w + 2 Constant\n"
      "Subject To\n"
      " c1: x + y + z <= 10\n"
      " c2: x - y >= -2.5e1\n"
      " c3: 2 x + 3 w == 7\n"
      " -3 <= z + w <= 8\n"
      " 4 >= x + w\n"
      " c6: x + 2 y + 3 <= 4 \\ a constant on the left\n"
      "Bounds\n"
      " x <= 40\n"
      " -infinity <= y <= 5\n"
      " z free\n"
      " 2 <= w <= inf\n"
      " v = 3\n"
      " x >= -1e+30\n"
      "Generals\n"
      " z\n"
      "Binaries\n"
      " w\n"
      "Semi-continuous\n"
      " y\n"
      "End\n");
  seeds.push_back(
      "Minimize\n"
      " x + y + __pwl(p) + [ x ^2 + 2 x * y ] / 2\n"
      "st\n"
      " c: x + y + z + p >= 1\n"
      " qc: x + [ x ^2 + 2 x * y - z ^ 2 ] <= 4\n"
      " ind: b = 1 -> x + y <= 3\n"
      " b = 0 -> z >= 1\n"
      "lazy constraints\n"
      " l1: x + y <= 5\n"
      "lazy constraints 3\n"
      " l3: y + z <= 6\n"
      "cones\n"
      " k: z x y\n"
      "bounds\n"
      " b <= 1\n"
      "sos\n"
      " s1: S1 :: x:1 y:2 z:3\n"
      " S2 :: y:1 z:2\n"
      "pwlobj\n"
      " p: (0, 0) (1, 2)\n"
      "   (2, 5)\n"
      "general constraints\n"
      " g1: r = MAX ( x , y , 2 )\n"
      " r = MIN ( x , z )\n"
      " g3: a = ABS ( y )\n"
      " g4: b = AND ( b1 , b2 )\n"
      " g5: b = OR ( b1 )\n"
      "binary\n"
      " b b1 b2\n"
      "end\n");
  seeds.push_back(
      "Maximize multi-objectives\n"
      "  first: Priority=2 Weight=-1 AbsTol=0.5 RelTol=0.01\n"
      "   x + 2 y + 3 Constant0\n"
      "  OBJ1: priority = 1 WEIGHT=-0.5 abstol=0 RelTol= 0\n"
      "   - y\n"
      "Subject To\n c: x + y <= 4\n"
      "Bounds\n Constant0 = 1\nEnd\n");
  seeds.push_back("Minimize\nEnd\n");
  seeds.push_back("min\r\n\tx\t+\ty\r\ns.t.\r\n\tx\t+\ty\t>=\t1\r\nbound\r\n\tx\t<=\t2\r\nend\r\n");
  return seeds;
}

std::string sideModelText() {
  return "Minimize\n x + y + z + w\nSubject To\n r1: x + y >= 1\n r2: z - w <= 3\n"
         "Bounds\n w <= 4\nGenerals\n z\nEnd\n";
}

std::vector<SideSeed> sideSeeds() {
  return {
      {".mst", "# MIP start\nx 1\ny 0.5\nz 2\n\nw 1e+100\n"},
      {".sol", "# Solution for model m\n# Objective value = 3.5\nx 1\ny 0.5\nz 2\nw 0\n"},
      {".hnt", "# MIP variable hints\nx 1 2\nz 3 -1\n"},
      {".ord", "# MIP branch priorities\nz 3\nx -1\ny 2.5\n"},
      {".bas", "NAME m 4 Variables 2 Constraints\n XL x         r1\n XU y         r2\n BS z\n"
               " UL w\n LL y\nENDATA\n"},
  };
}

namespace {

const char* const kHuge[] = {"1e308", "1e400", "-1e400", "1e-400", "99999999999999999999999",
                             "4294967296", "2147483648", "-2147483649", "1e100", "-1e100",
                             "0x1p3", "1e30", "-0", "3.", ".5e-3"};
const char* const kOdd[] = {"nan", "NaN", "-nan", "inf", "-inf", "Infinity", "+INF", "1e+",
                            "e5", ".", "-", "+-1", "1d5", "1.5D+03", "--1", "1,5"};
const char* const kWords[] = {
    "NAME", "ROWS", "COLUMNS", "RHS", "RANGES", "BOUNDS", "SOS", "QUADOBJ", "QMATRIX", "QCMATRIX",
    "LAZYCONS", "INDICATORS", "GENCONS", "PWLOBJ", "ENDATA", "OBJSENSE", "OBJNAME", "SETS", "MARKER",
    "'MARKER'", "'INTORG'", "'INTEND'", "'SOSORG'", "'SOSEND'", " N", " L", " G", " E", " FR", " BV",
    " SC", " SI", " LI", " UI", " MI", " PL", " FX", " UP", " LO", " S1", " S2", "IF", "MAX", "MIN",
    "ABS", "AND", "OR", "INDICATOR", "Minimize", "Maximize", "Subject To", "st", "Bounds", "Generals",
    "Binaries", "Semi-continuous", "SOS", "PWLObj", "General Constraints", "Lazy Constraints 2",
    "End", "free", "Constant", "__pwl(", "[", "]", "/ 2", "^", "^2", "*", "->", "::", ":", "<=",
    ">=", "=", "==", "=<", "=>", "<", ">", "(", ")", ",", "+", "-", "\\", "_multi-objectives",
    "Priority=", "Weight=", "#", "XL", "XU", "BS", "UL", "LL"};

template <size_t N>
const char* pick(const char* const (&list)[N], Rng& rng) {
  return list[rng.below(N)];
}

// Offsets where lines start.
std::vector<size_t> lineStarts(const std::string& s) {
  std::vector<size_t> at{0};
  for (size_t i = 0; i < s.size(); ++i)
    if (s[i] == '\n' && i + 1 < s.size()) at.push_back(i + 1);
  return at;
}

size_t lineEnd(const std::string& s, size_t from) {
  size_t e = s.find('\n', from);
  return e == std::string::npos ? s.size() : e + 1;
}

// A word of the text: its start and length; (npos, 0) when there is none.
std::pair<size_t, size_t> someWord(const std::string& s, Rng& rng) {
  for (int tries = 0; tries < 8 && !s.empty(); ++tries) {
    size_t i = rng.below(s.size());
    auto blank = [&](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    if (blank(s[i])) continue;
    size_t a = i, b = i;
    while (a > 0 && !blank(s[a - 1])) --a;
    while (b < s.size() && !blank(s[b])) ++b;
    return {a, b - a};
  }
  return {std::string::npos, 0};
}

std::string longName(Rng& rng) {
  static const size_t lengths[] = {255, 256, 300, 1000, 70000};
  std::string n(lengths[rng.below(5)], 'a');
  for (size_t k = 0; k < n.size(); k += 7) n[k] = static_cast<char>('a' + rng.below(26));
  return n;
}

void mutateOnce(std::string& s, const std::vector<std::string>& pool, Rng& rng) {
  const size_t n = s.size();
  switch (rng.below(19)) {
    case 0: {  // delete a few bytes
      if (!n) break;
      size_t at = rng.below(n), len = 1 + rng.below(16);
      s.erase(at, len);
      break;
    }
    case 1: {  // duplicate a few bytes
      if (!n) break;
      size_t at = rng.below(n), len = 1 + rng.below(32);
      s.insert(at, s.substr(at, len));
      break;
    }
    case 2: {  // swap two lines
      auto at = lineStarts(s);
      size_t a = rng.below(at.size()), b = rng.below(at.size());
      if (a == b) break;
      if (a > b) std::swap(a, b);
      std::string la = s.substr(at[a], lineEnd(s, at[a]) - at[a]);
      std::string lb = s.substr(at[b], lineEnd(s, at[b]) - at[b]);
      s.replace(at[b], lb.size(), la);
      s.replace(at[a], la.size(), lb);
      break;
    }
    case 3: {  // duplicate or delete a line
      auto at = lineStarts(s);
      size_t a = at[rng.below(at.size())];
      std::string line = s.substr(a, lineEnd(s, a) - a);
      if (rng.chance(50))
        s.insert(a, line);
      else
        s.erase(a, line.size());
      break;
    }
    case 4: {  // splice in a line of another seed
      const std::string& other = pool[rng.below(pool.size())];
      auto from = lineStarts(other);
      size_t b = from[rng.below(from.size())];
      auto at = lineStarts(s);
      s.insert(at[rng.below(at.size())], other.substr(b, lineEnd(other, b) - b));
      break;
    }
    case 5: {  // splice: our head, another seed's tail
      const std::string& other = pool[rng.below(pool.size())];
      s = s.substr(0, rng.below(n + 1)) + other.substr(rng.below(other.size() + 1));
      break;
    }
    case 6: {  // change digits
      for (int k = 0; k < 4 && n; ++k) {
        size_t i = rng.below(n);
        for (size_t t = 0; t < n; ++t, i = (i + 1) % n)
          if (s[i] >= '0' && s[i] <= '9') {
            static const char repl[] = "0123456789-.eE+";
            s[i] = repl[rng.below(sizeof repl - 1)];
            break;
          }
      }
      break;
    }
    case 7: {  // a huge or tiny number in place of a word
      auto w = someWord(s, rng);
      if (w.first != std::string::npos) s.replace(w.first, w.second, pick(kHuge, rng));
      break;
    }
    case 8: {  // NaN, infinity and broken number texts
      auto w = someWord(s, rng);
      if (w.first != std::string::npos) s.replace(w.first, w.second, pick(kOdd, rng));
      break;
    }
    case 9: {  // a very long name
      auto w = someWord(s, rng);
      if (w.first != std::string::npos) s.replace(w.first, w.second, longName(rng));
      break;
    }
    case 10: {  // a very long line
      auto at = lineStarts(s);
      std::string line(100000 + rng.below(1000), 'x');
      for (size_t k = 0; k < line.size(); k += 1 + rng.below(40)) line[k] = ' ';
      if (rng.chance(50)) line[0] = ' ';
      s.insert(at[rng.below(at.size())], line + "\n");
      break;
    }
    case 11:  // truncation
      s.resize(rng.below(n + 1));
      break;
    case 12: {  // embedded NULs
      for (int k = 0; k < 1 + static_cast<int>(rng.below(3)); ++k) s.insert(rng.below(s.size() + 1), 1, '\0');
      break;
    }
    case 13: {  // binary garbage
      std::string g(1 + rng.below(32), '\0');
      for (char& c : g) c = static_cast<char>(rng.below(256));
      s.insert(rng.below(n + 1), g);
      break;
    }
    case 14: {  // a word moved over another
      auto a = someWord(s, rng), b = someWord(s, rng);
      if (a.first == std::string::npos || b.first == std::string::npos) break;
      s.replace(b.first, b.second, s.substr(a.first, a.second));
      break;
    }
    case 15: {  // a keyword or symbol at a line start or in place of a word
      const char* word = pick(kWords, rng);
      if (rng.chance(50)) {
        auto at = lineStarts(s);
        s.insert(at[rng.below(at.size())], std::string(word) + (rng.chance(50) ? "\n" : " "));
      } else {
        auto w = someWord(s, rng);
        if (w.first != std::string::npos) s.replace(w.first, w.second, word);
      }
      break;
    }
    case 16: {  // a data line becomes a header, or the reverse
      auto at = lineStarts(s);
      size_t a = at[rng.below(at.size())];
      if (a < s.size() && (s[a] == ' ' || s[a] == '\t'))
        s.erase(a, 1);
      else
        s.insert(a, 1, ' ');
      break;
    }
    case 17: {  // blanks become tabs, line feeds carriage returns
      for (int k = 0; k < 8 && n; ++k) {
        size_t i = rng.below(s.size());
        if (s[i] == ' ') s[i] = '\t';
        else if (s[i] == '\n') s[i] = '\r';
      }
      break;
    }
    default: {  // a line of the text repeated many times
      auto at = lineStarts(s);
      size_t a = at[rng.below(at.size())];
      std::string line = s.substr(a, lineEnd(s, a) - a);
      std::string many;
      for (int k = 0; k < 200; ++k) many += line;
      s.insert(a, many);
      break;
    }
  }
}

}  // namespace

std::string mutate(const std::string& seed, const std::vector<std::string>& pool, Rng& rng) {
  std::string s = seed;
  const int count = 1 + static_cast<int>(rng.below(4));
  for (int k = 0; k < count; ++k) mutateOnce(s, pool, rng);
  // Keep mutants below a few megabytes however the mutations stack.
  if (s.size() > (4u << 20)) s.resize(4u << 20);
  return s;
}

long caseCount(long fallback) {
  const char* v = std::getenv("VRX_FUZZ_CASES");
  if (!v || !*v) return fallback;
  long n = std::strtol(v, nullptr, 10);
  return n > 0 ? n : fallback;
}

uint64_t baseSeed() {
  const char* v = std::getenv("VRX_FUZZ_SEED");
  if (!v || !*v) return 20240611ull;
  return std::strtoull(v, nullptr, 10);
}

}  // namespace fuzz
