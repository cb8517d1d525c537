// Basis, MIP start, hint, priority, solution and summary files.
#include "io/sidefiles.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "env/envvec.h"
#include "env/nameindex.h"
#include "io/numfmt.h"
#include "io/stream.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/namecheck.h"

namespace vrx {

namespace {

constexpr int kLineBuf = 512;
constexpr size_t kNameBuf = 32;

// Finds names of one kind: first near the last hit, since files usually
// follow the model's order, then through a hash index built on demand.
struct Finder {
  VRXenv* env;
  const VRXmodeldata* d;
  bool vars;
  int count;
  int last = -1;
  NameIndex* idx = nullptr;
  char buf[kNameBuf] = {};

  Finder(VRXenv* e, const VRXmodeldata* data, bool v)
      : env(e), d(data), vars(v), count(v ? data->numVars : data->numConstrs) {}
  ~Finder() { nameIndexFree(env, idx); }
  Finder(const Finder&) = delete;
  Finder& operator=(const Finder&) = delete;

  const char* nameOf(int k) {
    return vars ? modelVarName(d, k, buf, sizeof buf) : modelConstrName(d, k, buf, sizeof buf);
  }
  int find(const char* name) {
    if (count == 0) return -1;
    for (int step = 1; step <= 4; ++step) {
      int k = (last + step) % count;
      if (k < 0) k += count;
      if (std::strcmp(nameOf(k), name) == 0) return last = k;
    }
    if (!idx) {
      idx = nameIndexCreate(env, static_cast<int>(1.4 * count) + 1);
      if (!idx) throw std::bad_alloc();
      for (int k = 0; k < count; ++k)
        if (nameIndexInsert(env, idx, nameOf(k), k)) throw std::bad_alloc();
    }
    int k = nameIndexFind(idx, name);
    if (k >= 0) last = k;
    return k;
  }
};

// A stream closed on every path.
struct Open {
  Stream* s = nullptr;
  ~Open() {
    if (s) streamClose(s);
  }
};

// One line into buf; the rest of an overlong line is dropped. False at the end.
bool readLine(Stream* s, char* buf) {
  if (!streamGets(s, buf, kLineBuf)) return false;
  size_t n = std::strlen(buf);
  if (n > 0 && buf[n - 1] != '\n') {
    char rest[kLineBuf];
    while (streamGets(s, rest, kLineBuf)) {
      size_t r = std::strlen(rest);
      if (r > 0 && rest[r - 1] == '\n') break;
    }
  }
  return true;
}

// Lines that the start, hint and priority readers skip.
bool skipped(const char* line) {
  const char* p = line;
  while (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n') ++p;
  return *p == '\0' || line[0] == '#';
}

int openForReading(VRXmodel* model, const char* filename, Open* f) {
  int err = 0;
  f->s = streamOpen(model->env, filename, 'r', &err);
  if (f->s) return 0;
  if (err == VRX_ERROR_OUT_OF_MEMORY) throw std::bad_alloc();
  return raise(model->env, VRX_ERROR_FILE_READ, true, "Unable to open file '%s' for input", filename);
}

// The values a reader sets: name then value, or name, value and an integer.
int readStartLike(VRXmodel* model, const char* filename, bool hints) {
  VRXenv* env = model->env;
  const char* problem = hints ? "Problem reading MIP hints" : "Problem reading MIP start";
  Open f;
  int err = openForReading(model, filename, &f);
  if (err) return err;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars;
  if (!hints && n > 0) {
    // Every start value is "none" until the file gives one.
    EnvVec<double> none(env);
    none.resize(static_cast<size_t>(n), VRX_UNDEFINED);
    if ((err = VRXsetdblattrarray(model, "Start", 0, n, none.data())))
      return raise(env, err, true, "%s", problem);
  }
  Finder vars(env, d, true);
  char line[kLineBuf];
  char name[kLineBuf];
  while (readLine(f.s, line)) {
    if (skipped(line)) continue;
    double value = 0;
    int priority = 0;
    int got = hints ? std::sscanf(line, "%511s %lf %d", name, &value, &priority)
                    : std::sscanf(line, "%511s %lf", name, &value);
    if (got < 2) return raise(env, VRX_ERROR_FILE_READ, true, "%s", problem);
    int j = vars.find(name);
    if (j < 0) {
      log(env, hints ? "Unknown variable '%s' in MIP hint - ignored\n"
                     : "Unknown variable '%s' in MIP start - ignored\n",
          name);
      continue;
    }
    if (hints) {
      err = VRXsetdblattrelement(model, "VarHintVal", j, value);
      if (!err && got == 3) err = VRXsetintattrelement(model, "VarHintPri", j, priority);
    } else {
      err = VRXsetdblattrelement(model, "START", j, value);
    }
    if (err) return raise(env, err, true, "%s", problem);
  }
  return 0;
}

int readPriorities(VRXmodel* model, const char* filename) {
  VRXenv* env = model->env;
  Open f;
  int err = openForReading(model, filename, &f);
  if (err) return err;
  Finder vars(env, model->data, true);
  char line[kLineBuf];
  char name[kLineBuf];
  while (readLine(f.s, line)) {
    if (skipped(line)) continue;
    double value = 0;
    if (std::sscanf(line, "%511s %lf", name, &value) < 2)
      return raise(env, VRX_ERROR_FILE_READ, true, "Problem reading priority file");
    int j = vars.find(name);
    if (j < 0) {
      log(env, "Unknown variable '%s' in priority file - ignored\n", name);
      continue;
    }
    if (value != std::floor(value) || std::fabs(value) > kMaxInt) {
      log(env, "Branch priority must be integral - ignoring value '%g'\n", value);
      continue;
    }
    if ((err = VRXsetintattrelement(model, "BranchPriority", j, static_cast<int>(value))))
      return raise(env, err, true, "Problem reading priority file");
  }
  return 0;
}

int readBasis(VRXmodel* model, const char* filename) {
  VRXenv* env = model->env;
  Open f;
  int err = 0;
  f.s = streamOpen(env, filename, 'r', &err);
  if (!f.s) {
    if (err == VRX_ERROR_OUT_OF_MEMORY) throw std::bad_alloc();
    log(env, "Error: file %s not found\n", filename);
    return raise(env, VRX_ERROR_FILE_READ, true, "File %s not found\n", filename);
  }
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  EnvVec<int> vb(env), cb(env);
  vb.resize(static_cast<size_t>(n) + 1, VRX_NONBASIC_LOWER);
  cb.resize(static_cast<size_t>(m) + 1, VRX_BASIC);
  Finder vars(env, d, true), rows(env, d, false);
  char line[kLineBuf], code[kLineBuf], a[kLineBuf], b[kLineBuf];
  while (readLine(f.s, line)) {
    if (line[0] == 'E' || line[0] == 'e') break;
    if (line[0] != ' ' && line[0] != '\t') continue;
    int got = std::sscanf(line, "%511s %511s %511s", code, a, b);
    if (got < 2) continue;
    const char kind = static_cast<char>(std::toupper(static_cast<unsigned char>(code[0])));
    int j = vars.find(a);
    if (j < 0) {
      log(env, "Error: variable name %s doesn't exist\n", a);
      return raise(env, VRX_ERROR_FILE_READ, true, "MPS reader: variable name %s doesn't exist\n", a);
    }
    if (kind == 'X') {
      int i = got == 3 ? rows.find(b) : -1;
      if (i < 0) {
        log(env, "Error: row name %s doesn't exist\n", got == 3 ? b : "");
        return raise(env, VRX_ERROR_FILE_READ, true, "MPS reader: row name %s doesn't exist\n",
                     got == 3 ? b : "");
      }
      vb[static_cast<size_t>(j)] = VRX_BASIC;
      cb[static_cast<size_t>(i)] = VRX_NONBASIC_LOWER;
    } else if (kind == 'B') {
      vb[static_cast<size_t>(j)] = VRX_BASIC;
    } else if (kind == 'U') {
      vb[static_cast<size_t>(j)] = VRX_NONBASIC_UPPER;
    } else {
      vb[static_cast<size_t>(j)] = VRX_NONBASIC_LOWER;
    }
  }
  if (n > 0 && (err = VRXsetintattrarray(model, "VBasis", 0, n, vb.data()))) return err;
  if (m > 0 && (err = VRXsetintattrarray(model, "CBasis", 0, m, cb.data()))) return err;
  return 0;
}

// ---- writers ----

struct Out {
  VRXenv* env;
  Stream* s = nullptr;
  int err = 0;
  char num[kNumBuf] = {};
  ~Out() {
    if (s) streamClose(s);
  }
  template <class... A>
  void put(const char* fmt, A... args) {
    if (!err) err = streamPrintf(s, fmt, args...);
  }
  const char* n(double v) { return formatNumber(v, num); }
};

// Opens for writing; openCode and openText say how a failure reads.
int openForWriting(VRXenv* env, const char* filename, Out* o, int openCode, const char* openText) {
  int err = 0;
  o->s = streamOpen(env, filename, 'w', &err);
  if (o->s) return 0;
  if (err == VRX_ERROR_OUT_OF_MEMORY) throw std::bad_alloc();
  return raise(env, openCode, true, openText, filename);
}

// Closes; a failure so far or at the close removes the file.
int finish(VRXenv* env, const char* filename, Out* o, int code, const char* failText) {
  int closeErr = streamClose(o->s);
  o->s = nullptr;
  if (!code && (o->err || closeErr))
    code = raise(env, VRX_ERROR_FILE_WRITE, true, failText, filename);
  if (code) std::remove(filename);
  return code;
}

const char* varName(const VRXmodeldata* d, int j, char* buf) { return modelVarName(d, j, buf, kNameBuf); }

int writeStart(VRXmodel* model, const char* filename) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars;
  EnvVec<double> vals(env);
  EnvVec<char> mask(env);
  vals.resize(static_cast<size_t>(n) + 1, 0.0);
  mask.resize(static_cast<size_t>(n) + 1, 0);
  if (VRXgetdblattrarray(model, "X", 0, n, vals.data()) == 0) {
    // From a solution: what a start needs, the integral and special parts.
    for (int j = 0; j < n; ++j) mask[static_cast<size_t>(j)] = d->vtype[j] != 'C';
    for (int64_t p = 0; d->numSOS > 0 && p < d->sosBeg[d->numSOS]; ++p) mask[static_cast<size_t>(d->sosInd[p])] = 1;
    for (int g = 0; g < d->numGenConstrs; ++g) {
      const VRXgenconstr& gc = d->genConstrs[g];
      mask[static_cast<size_t>(gc.resultVar)] = 1;
      for (int k = 0; k < gc.count; ++k)
        mask[static_cast<size_t>(gc.type == VRX_GENCONSTR_INDICATOR ? gc.ind[k] : gc.vars[k])] = 1;
    }
  } else {
    if (env->par.StartNumber >= model->startCount)
      return raise(env, VRX_ERROR_DATA_NOT_AVAILABLE, true, "No MIP start available");
    int err = VRXgetdblattrarray(model, "Start", 0, n, vals.data());
    if (err) return raise(env, err, true, "No MIP start available");
    for (int j = 0; j < n; ++j) mask[static_cast<size_t>(j)] = vals[static_cast<size_t>(j)] != VRX_UNDEFINED;
  }
  nameCheck(env, d, true);
  if (!d->varName && n > 0) log(env, "Warning: default variable names used to write MIP start file\n");
  Out o{env};
  int err = openForWriting(env, filename, &o, VRX_ERROR_FILE_WRITE, "Unable to open file '%s' for output");
  if (err) return err;
  char buf[kNameBuf];
  o.put("# MIP start\n");
  for (int j = 0; j < n && !o.err; ++j)
    if (mask[static_cast<size_t>(j)]) o.put("%s %s\n", varName(d, j, buf), o.n(vals[static_cast<size_t>(j)]));
  return finish(env, filename, &o, 0, "Failed to write '%s'");
}

int writeHints(VRXmodel* model, const char* filename) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars;
  EnvVec<double> val(env);
  EnvVec<int> pri(env);
  val.resize(static_cast<size_t>(n) + 1, 0.0);
  pri.resize(static_cast<size_t>(n) + 1, 0);
  if (VRXgetdblattrarray(model, "VarHintVal", 0, n, val.data()) ||
      VRXgetintattrarray(model, "VarHintPri", 0, n, pri.data()))
    return raise(env, VRX_ERROR_DATA_NOT_AVAILABLE, true, "No MIP hints available");
  if (!d->varName && n > 0) log(env, "Warning: default variable names used to write MIP hint file\n");
  Out o{env};
  int err = openForWriting(env, filename, &o, VRX_ERROR_INVALID_ARGUMENT, "Unable to open file '%s' for output");
  if (err) return err;
  char buf[kNameBuf];
  o.put("# MIP variable hints\n");
  for (int j = 0; j < n && !o.err; ++j)
    if (val[static_cast<size_t>(j)] != VRX_UNDEFINED)
      o.put("%s %s %d\n", varName(d, j, buf), o.n(val[static_cast<size_t>(j)]), pri[static_cast<size_t>(j)]);
  return finish(env, filename, &o, 0, "Failed to write '%s'");
}

int writePriorities(VRXmodel* model, const char* filename) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars;
  EnvVec<int> pri(env);
  pri.resize(static_cast<size_t>(n) + 1, 0);
  if (VRXgetintattrarray(model, "BranchPriority", 0, n, pri.data()))
    return raise(env, VRX_ERROR_DATA_NOT_AVAILABLE, true, "No priorities available");
  Out o{env};
  int err = openForWriting(env, filename, &o, VRX_ERROR_INVALID_ARGUMENT, "Unable to open file '%s' for output");
  if (err) return err;
  char buf[kNameBuf];
  o.put("# MIP branch priorities\n");
  for (int j = 0; j < n && !o.err; ++j) o.put("%s %d\n", varName(d, j, buf), pri[static_cast<size_t>(j)]);
  return finish(env, filename, &o, 0, "Failed to write '%s'");
}

int writeSolution(VRXmodel* model, const char* filename) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars;
  EnvVec<double> x(env);
  x.resize(static_cast<size_t>(n) + 1, 0.0);
  char* name = nullptr;
  double objVal = 0;
  int err = VRXgetstrattr(model, "ModelName", &name);
  if (!err) err = VRXgetdblattrarray(model, "X", 0, n, x.data());
  if (!err) err = VRXgetdblattr(model, "ObjVal", &objVal);
  if (err) return err;
  if (!d->varName && n > 0) log(env, "Warning: default variable names used to write solution file\n");
  Out o{env};
  err = openForWriting(env, filename, &o, VRX_ERROR_FILE_WRITE, "Unable to write to file '%s'\n");
  if (err) return err;
  if (name && name[0]) o.put("# Solution for model %s\n", name);
  o.put("# Objective value = %s\n", o.n(objVal));
  char buf[kNameBuf];
  for (int j = 0; j < n && !o.err; ++j) o.put("%s %s\n", varName(d, j, buf), o.n(x[static_cast<size_t>(j)]));
  return finish(env, filename, &o, 0, "Unable to write to file '%s'\n");
}

int writeBasis(VRXmodel* model, const char* filename) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  const char* noBasis = "Unable to retrieve basis for current model";
  if (n == 0 || m == 0) return raise(env, VRX_ERROR_FILE_WRITE, true, "%s", noBasis);
  EnvVec<int> vb(env), cb(env);
  vb.resize(static_cast<size_t>(n), 0);
  cb.resize(static_cast<size_t>(m), 0);
  if (VRXgetintattrarray(model, "VBasis", 0, n, vb.data()) || VRXgetintattrarray(model, "CBasis", 0, m, cb.data()))
    return raise(env, VRX_ERROR_FILE_WRITE, true, "%s", noBasis);
  if (!d->varName) log(env, "Warning: default variable names used to write basis file\n");
  if (!d->constrName) log(env, "Warning: default constraint names used to write basis file\n");
  Out o{env};
  int err = openForWriting(env, filename, &o, VRX_ERROR_FILE_WRITE, "Unable to open file '%s' for output");
  if (err) return err;
  char bufA[kNameBuf], bufB[kNameBuf];
  o.put("NAME %s %d Variables %d Constraints\n", d->modelName ? d->modelName : "", n, m);
  // Each basic variable takes the place of the next nonbasic row.
  int row = 0;
  for (int j = 0; j < n && !o.err; ++j) {
    if (vb[static_cast<size_t>(j)] < 0) continue;
    while (row < m && cb[static_cast<size_t>(row)] == VRX_BASIC) ++row;
    if (row < m) {
      o.put(" XL %-8s  %-8s\n", varName(d, j, bufA), modelConstrName(d, row, bufB, kNameBuf));
      ++row;
      continue;
    }
    // Without Q no further variable can be basic.
    if (d->numQNZs == 0) break;
    o.put(" BS %-8s\n", varName(d, j, bufA));
  }
  for (int j = 0; j < n && !o.err; ++j)
    if (vb[static_cast<size_t>(j)] == VRX_NONBASIC_UPPER) o.put(" UL %-8s\n", varName(d, j, bufA));
  o.put("ENDATA\n");
  return finish(env, filename, &o, 0, "Failed to write '%s'");
}

int writeSummary(VRXmodel* model, const char* filename) {
  VRXenv* env = model->env;
  Out o{env};
  int err = openForWriting(env, filename, &o, VRX_ERROR_FILE_WRITE, "Unable to open file '%s' for output");
  if (err) return err;
  int status = 0, solCount = 0;
  double v = 0;
  int code = VRXgetintattr(model, "Status", &status);
  if (!code) {
    o.put("STATUS=%d\n", status);
    code = VRXgetintattr(model, "SolCount", &solCount);
  }
  if (!code) {
    o.put("SOLCOUNT=%d\n", solCount);
    if (solCount > 0) {
      code = VRXgetdblattr(model, "ObjVal", &v);
      if (!code) o.put("OBJVAL=%s\n", o.n(v));
    }
  }
  if (!code) {
    if (VRXgetdblattr(model, "ObjBound", &v) == 0) o.put("OBJBOUND=%s\n", o.n(v));
    if (VRXgetdblattr(model, "Runtime", &v) == 0) o.put("RUNTIME=%.2f\n", v);
    if (VRXgetdblattr(model, "IterCount", &v) == 0) o.put("ITERCOUNT=%.0f\n", v);
    code = VRXgetdblattr(model, "NodeCount", &v);
    if (!code) o.put("NODECOUNT=%.0f\n", v);
  }
  return finish(env, filename, &o, code, "Failed to write '%s'");
}

}  // namespace

int sideRead(VRXmodel* model, const char* filename, int kind) {
  switch (kind) {
    case 6:
    case 7: return readStartLike(model, filename, false);
    case 8: return readBasis(model, filename);
    case 11: return readPriorities(model, filename);
    case 14: return readStartLike(model, filename, true);
    default: return raise(model->env, VRX_ERROR_FILE_READ, true, "Unknown file type for file '%s'", filename);
  }
}

int sideWrite(VRXmodel* model, const char* filename, int kind) {
  switch (kind) {
    case 6: return writeStart(model, filename);
    case 7: return writeSolution(model, filename);
    case 8: return writeBasis(model, filename);
    case 11: return writePriorities(model, filename);
    case 12: return writeSummary(model, filename);
    case 14: return writeHints(model, filename);
    default: return raise(model->env, VRX_ERROR_FILE_WRITE, true, "Unknown file type for file '%s'", filename);
  }
}

}  // namespace vrx
