// Packing: the live part of the record becomes the presolved model, and the
// undo stack with the index maps becomes the map beside it.
#include <cstring>
#include <new>

#include "env/envvec.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "presolve/presolve.h"

namespace vrx {

int presolvePack(VRXpresolve* p, VRXmodel* model, bool withNames, PresolveOut* out) {
  VRXenv* env = p->env;
  const VRXmodeldata* d = model->data;
  const int n = p->numCols, m = p->numRows;

  VRXpresolvemap* map = static_cast<VRXpresolvemap*>(envCalloc(env, 1, sizeof(VRXpresolvemap)));
  if (!map) throw std::bad_alloc();
  struct MapGuard {
    VRXpresolvemap* m;
    ~MapGuard() { presolveMapFree(m); }
  } mapGuard{map};
  map->env = env;
  map->undoCount = -1;
  // Columns and rows beyond the model's own were added by reductions.
  map->origCols = d->numVars;
  map->origRows = d->numConstrs;
  map->addedCols = n - d->numVars;
  map->addedRows = m - d->numConstrs;
  map->colMap = preArray<int>(env, static_cast<size_t>(n));
  map->rowMap = preArray<int>(env, static_cast<size_t>(m));
  map->rowNeg = preArray<char>(env, static_cast<size_t>(m));
  map->origSense = preArray<char>(env, static_cast<size_t>(m));
  map->origLb = preArray<double>(env, static_cast<size_t>(n));
  map->origUb = preArray<double>(env, static_cast<size_t>(n));
  int nc = 0, nr = 0;
  for (int j = 0; j < n; ++j) {
    map->colMap[j] = colLive(p, j) ? nc++ : (p->colCount[j] == -1 ? -1 : -2);
    map->origLb[j] = j < d->numVars ? d->lb[j] : -kInf;
    map->origUb[j] = j < d->numVars ? d->ub[j] : kInf;
  }
  for (int i = 0; i < m; ++i) {
    map->rowMap[i] = rowLive(p, i) ? nr++ : -1;
    map->rowNeg[i] = i < d->numConstrs && d->sense[i] == '>' ? 1 : 0;
    map->origSense[i] = i < d->numConstrs && d->sense[i] != '=' ? '<' : '=';
  }
  map->preCols = nc;
  map->preRows = nr;
  map->objConst = p->objConst;
  for (const VRXundo* u = p->undo.head; u; u = u->next)
    if (u->kind == UNDO_DUPCOL) map->crushFlag = 1;

  // Column-wise arrays of the presolved model.
  EnvVec<size_t> beg(env);
  EnvVec<int> len(env), ind(env);
  EnvVec<double> val(env), obj(env), lb(env), ub(env), rhs(env);
  EnvVec<char> sense(env), vtype(env);
  EnvVec<const char*> varNames(env), conNames(env);
  beg.resize(static_cast<size_t>(nc) + 1);
  len.resize(static_cast<size_t>(nc) + 1);
  obj.resize(static_cast<size_t>(nc) + 1);
  lb.resize(static_cast<size_t>(nc) + 1);
  ub.resize(static_cast<size_t>(nc) + 1);
  vtype.resize(static_cast<size_t>(nc) + 1);
  rhs.resize(static_cast<size_t>(nr) + 1);
  sense.resize(static_cast<size_t>(nr) + 1);
  ind.reserve(static_cast<size_t>(p->nzCount) + 1);
  val.reserve(static_cast<size_t>(p->nzCount) + 1);
  int64_t nz = 0;
  for (int j = 0; j < n; ++j) {
    const int pj = map->colMap[j];
    if (pj < 0) continue;
    beg[pj] = static_cast<size_t>(nz);
    int l = 0;
    for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k]) {
      ind.push_back(map->rowMap[p->slotRow[k]]);
      val.push_back(p->rowVal[k]);
      l++;
    }
    len[pj] = l;
    nz += l;
    obj[pj] = d->modelSense * p->obj[j];
    lb[pj] = isInf(p, p->lb[j]) ? -kInf : p->lb[j];
    ub[pj] = isInf(p, p->ub[j]) ? kInf : p->ub[j];
    vtype[pj] = p->colType[j];
  }
  ind.push_back(0);
  val.push_back(0);
  for (int i = 0; i < m; ++i) {
    const int pi = map->rowMap[i];
    if (pi < 0) continue;
    rhs[pi] = p->rhs[i];
    sense[pi] = p->sense[i];
  }
  if (withNames && d->varName) {
    varNames.resize(static_cast<size_t>(nc) + 1, nullptr);
    for (int j = 0; j < n; ++j)
      if (map->colMap[j] >= 0) varNames[map->colMap[j]] = d->varName[j];
  }
  if (withNames && d->constrName) {
    conNames.resize(static_cast<size_t>(nr) + 1, nullptr);
    for (int i = 0; i < m; ++i)
      if (map->rowMap[i] >= 0) conNames[map->rowMap[i]] = d->constrName[i];
  }
  LoadArgs a;
  a.name = d->modelName;
  a.numVars = nc;
  a.numConstrs = nr;
  // The caller's sense: the load turns it into the same minimisation form.
  a.objSense = d->modelSense;
  a.objCon = d->modelSense * p->objConst;
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
  a.varNames = withNames && d->varName ? varNames.data() : nullptr;
  a.constrNames = withNames && d->constrName ? conNames.data() : nullptr;
  VRXmodel* pre = nullptr;
  int rc = modelLoad(model->env, a, &pre);
  if (rc) return rc;
  // The solve of the presolved model is part of this solve.
  if (!withNames) modelShareEnv(pre, model->env);
  charge(p, pwSpare, 4.0 * static_cast<double>(nz) + nc + nr);

  // The undo stack moves into the map.
  map->undo = p->undo;
  p->undo = UndoStack{nullptr, nullptr, 0};
  out->presolved = pre;
  out->map = map;
  mapGuard.m = nullptr;
  return 0;
}

}  // namespace vrx
