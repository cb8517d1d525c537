/* Vornix 8.1.1: the C interface of libvornix81. */
#ifndef VORNIX_C_H
#define VORNIX_C_H

#include <stddef.h>
#include <stdarg.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(VRX_BUILDING_LIBRARY)
#define VRX_API __attribute__((visibility("default")))
#else
#define VRX_API
#endif

typedef struct VRXenv VRXenv;
typedef struct VRXmodel VRXmodel;

/* Version of this library */
#define VRX_VERSION_MAJOR     8
#define VRX_VERSION_MINOR     1
#define VRX_VERSION_TECHNICAL 1

/* Shared numeric constants */
#define VRX_INFINITY      1e100
#define VRX_UNDEFINED     1e101
#define VRX_MAXINT        2000000000
#define VRX_MAX_NAMELEN   255
#define VRX_MAX_STRLEN    512
#define VRX_MAX_CONCURRENT 64

/* Error codes */
#define VRX_ERROR_OUT_OF_MEMORY            10001
#define VRX_ERROR_NULL_ARGUMENT            10002
#define VRX_ERROR_INVALID_ARGUMENT         10003
#define VRX_ERROR_UNKNOWN_ATTRIBUTE        10004
#define VRX_ERROR_DATA_NOT_AVAILABLE       10005
#define VRX_ERROR_INDEX_OUT_OF_RANGE       10006
#define VRX_ERROR_UNKNOWN_PARAMETER        10007
#define VRX_ERROR_VALUE_OUT_OF_RANGE       10008
#define VRX_ERROR_NO_LICENSE               10009
#define VRX_ERROR_SIZE_LIMIT_EXCEEDED      10010
#define VRX_ERROR_CALLBACK                 10011
#define VRX_ERROR_FILE_READ                10012
#define VRX_ERROR_FILE_WRITE               10013
#define VRX_ERROR_NUMERIC                  10014
#define VRX_ERROR_IIS_NOT_INFEASIBLE       10015
#define VRX_ERROR_NOT_FOR_MIP              10016
#define VRX_ERROR_OPTIMIZATION_IN_PROGRESS 10017
#define VRX_ERROR_DUPLICATES               10018
#define VRX_ERROR_NODEFILE                 10019
#define VRX_ERROR_Q_NOT_PSD                10020
#define VRX_ERROR_QCP_EQUALITY_CONSTRAINT  10021
#define VRX_ERROR_NETWORK                  10022
#define VRX_ERROR_JOB_REJECTED             10023
#define VRX_ERROR_NOT_SUPPORTED            10024
#define VRX_ERROR_EXCEED_2B_NONZEROS       10025
#define VRX_ERROR_INVALID_PIECEWISE_OBJ    10026
#define VRX_ERROR_UPDATEMODE_CHANGE        10027
#define VRX_ERROR_CLOUD                    10028
#define VRX_ERROR_MODEL_MODIFICATION       10029
#define VRX_ERROR_CSWORKER                 10030
#define VRX_ERROR_TUNE_MODEL_TYPES         10031

/* Model status codes */
#define VRX_LOADED          1
#define VRX_OPTIMAL         2
#define VRX_INFEASIBLE      3
#define VRX_INF_OR_UNBD     4
#define VRX_UNBOUNDED       5
#define VRX_CUTOFF          6
#define VRX_ITERATION_LIMIT 7
#define VRX_NODE_LIMIT      8
#define VRX_TIME_LIMIT      9
#define VRX_SOLUTION_LIMIT  10
#define VRX_INTERRUPTED     11
#define VRX_NUMERIC         12
#define VRX_SUBOPTIMAL      13
#define VRX_INPROGRESS      14
#define VRX_USER_OBJ_LIMIT  15

/* Constraint senses and variable types */
#define VRX_LESS_EQUAL    '<'
#define VRX_GREATER_EQUAL '>'
#define VRX_EQUAL         '='
#define VRX_CONTINUOUS    'C'
#define VRX_BINARY        'B'
#define VRX_INTEGER       'I'
#define VRX_SEMICONT      'S'
#define VRX_SEMIINT       'N'

/* Objective senses */
#define VRX_MINIMIZE  1
#define VRX_MAXIMIZE -1

/* Basis statuses */
#define VRX_BASIC           0
#define VRX_NONBASIC_LOWER -1
#define VRX_NONBASIC_UPPER -2
#define VRX_SUPERBASIC     -3

/* SOS types */
#define VRX_SOS_TYPE1 1
#define VRX_SOS_TYPE2 2

/* General constraint types */
#define VRX_GENCONSTR_MAX       0
#define VRX_GENCONSTR_MIN       1
#define VRX_GENCONSTR_ABS       2
#define VRX_GENCONSTR_AND       3
#define VRX_GENCONSTR_OR        4
#define VRX_GENCONSTR_INDICATOR 5

/* Parameter types */
#define VRX_PARAM_INT    1
#define VRX_PARAM_DOUBLE 2
#define VRX_PARAM_STRING 3

/* Binding codes for the apitype argument */
#define VRX_API_NONE     -1
#define VRX_API_PYTHON    0
#define VRX_API_CPP       1
#define VRX_API_JAVA      2
#define VRX_API_DOTNET    3
#define VRX_API_MATLAB    4
#define VRX_API_R         5
#define VRX_API_CL        6
#define VRX_API_TUNE      7

/* Callback 'where' codes */
#define VRX_CB_POLLING  0
#define VRX_CB_PRESOLVE 1
#define VRX_CB_SIMPLEX  2
#define VRX_CB_MIP      3
#define VRX_CB_MIPSOL   4
#define VRX_CB_MIPNODE  5
#define VRX_CB_MESSAGE  6
#define VRX_CB_BARRIER  7
#define VRX_CB_MULTIOBJ 8

/* Callback 'what' codes */
#define VRX_CB_PRE_COLDEL     1000
#define VRX_CB_PRE_ROWDEL     1001
#define VRX_CB_PRE_SENCHG     1002
#define VRX_CB_PRE_BNDCHG     1003
#define VRX_CB_PRE_COECHG     1004
#define VRX_CB_SPX_ITRCNT     2000
#define VRX_CB_SPX_OBJVAL     2001
#define VRX_CB_SPX_PRIMINF    2002
#define VRX_CB_SPX_DUALINF    2003
#define VRX_CB_SPX_ISPERT     2004
#define VRX_CB_MIP_OBJBST     3000
#define VRX_CB_MIP_OBJBND     3001
#define VRX_CB_MIP_NODCNT     3002
#define VRX_CB_MIP_SOLCNT     3003
#define VRX_CB_MIP_CUTCNT     3004
#define VRX_CB_MIP_NODLFT     3005
#define VRX_CB_MIP_ITRCNT     3006
#define VRX_CB_MIP_OBJBNDC    3007
#define VRX_CB_MIP_OPENSCENARIOS 3008
#define VRX_CB_MIPSOL_SOL     4001
#define VRX_CB_MIPSOL_OBJ     4002
#define VRX_CB_MIPSOL_OBJBST  4003
#define VRX_CB_MIPSOL_OBJBND  4004
#define VRX_CB_MIPSOL_NODCNT  4005
#define VRX_CB_MIPSOL_SOLCNT  4006
#define VRX_CB_MIPSOL_OBJBNDC 4007
#define VRX_CB_MIPSOL_ORIGIN  4008
#define VRX_CB_MIPSOL_OPENSCENARIOS 4009
#define VRX_CB_MIPNODE_STATUS 5001
#define VRX_CB_MIPNODE_REL    5002
#define VRX_CB_MIPNODE_OBJBST 5003
#define VRX_CB_MIPNODE_OBJBND 5004
#define VRX_CB_MIPNODE_NODCNT 5005
#define VRX_CB_MIPNODE_SOLCNT 5006
#define VRX_CB_MIPNODE_BRVAR  5007
#define VRX_CB_MIPNODE_OBJBNDC 5008
#define VRX_CB_MSG_STRING     6001
#define VRX_CB_RUNTIME        6002
#define VRX_CB_BARRIER_ITRCNT 7001
#define VRX_CB_BARRIER_PRIMOBJ 7002
#define VRX_CB_BARRIER_DUALOBJ 7003
#define VRX_CB_BARRIER_PRIMINF 7004
#define VRX_CB_BARRIER_DUALINF 7005
#define VRX_CB_BARRIER_COMPL  7006
#define VRX_CB_MULTIOBJ_OBJCNT 8001
#define VRX_CB_MULTIOBJ_SOLCNT 8002
#define VRX_CB_MULTIOBJ_SOL   8003

/* File kinds as VRXfiletype reports them */
#define VRX_FILE_NONE 0
#define VRX_FILE_MPS  1
#define VRX_FILE_REW  2
#define VRX_FILE_LP   3
#define VRX_FILE_RLP  4
#define VRX_FILE_ILP  5
#define VRX_FILE_MST  6
#define VRX_FILE_SOL  7
#define VRX_FILE_BAS  8
#define VRX_FILE_PRM  9
#define VRX_FILE_QPS  10
#define VRX_FILE_ORD  11
#define VRX_FILE_SUM  12
#define VRX_FILE_OPB  13
#define VRX_FILE_HNT  14

/* Function types the host supplies */
typedef int (*VRXcallback)(VRXmodel *model, void *cbdata, int where, void *usrdata);
typedef void (*VRXlogcallback)(const char *msg);
typedef void *(*VRXmallocfn)(size_t size, void *syscbusrdata);
typedef void *(*VRXcallocfn)(size_t nmemb, size_t size, void *syscbusrdata);
typedef void *(*VRXreallocfn)(void *ptr, size_t size, void *syscbusrdata);
typedef void (*VRXfreefn)(void *ptr, void *syscbusrdata);
typedef int (*VRXthreadcreatefn)(void **threadP, void (*start)(void *), void *arg,
                                 void *syscbusrdata);
typedef void (*VRXthreadjoinfn)(void *thread, void *syscbusrdata);

/* ---- Environment and errors ---- */
VRX_API int VRXloadenv(VRXenv **envP, const char *logfilename);
VRX_API int VRXemptyenv(VRXenv **envP);
VRX_API int VRXemptyenvadv(VRXenv **envP, int apitype, int major, int minor, int tech);
VRX_API int VRXstartenv(VRXenv *env);
VRX_API int VRXloadenvadv(VRXenv **envP, const char *logfilename, int apitype, int major,
                          int minor, int tech, const char *server, const char *router,
                          const char *password, const char *group, int priority,
                          int idletimeout, const char *accessid, const char *secretkey,
                          VRXcallback cb, void *usrdata);
VRX_API int VRXloadenvadv2(VRXenv **envP, const char *logfilename, int apitype, int major,
                           int minor, int tech, const char *server, const char *router,
                           const char *password, const char *group, int priority,
                           int idletimeout, const char *accessid, const char *secretkey,
                           VRXcallback cb, void *usrdata, VRXlogcallback logcb);
VRX_API int VRXloadenvsyscb(VRXenv **envP, const char *logfilename, VRXmallocfn malloccb,
                            VRXcallocfn calloccb, VRXreallocfn realloccb, VRXfreefn freecb,
                            VRXthreadcreatefn threadcreatecb, VRXthreadjoinfn threadjoincb,
                            void *syscbusrdata);
VRX_API int VRXloadclientenv(VRXenv **envP, const char *logfilename,
                             const char *computeserver, const char *router,
                             const char *password, const char *group, int tls_insecure,
                             int priority, double timeout);
VRX_API int VRXloadclientenvadv(VRXenv **envP, const char *logfilename,
                                const char *computeserver, const char *router,
                                const char *password, const char *group, int tls_insecure,
                                int priority, double timeout, int apitype, int major,
                                int minor, int tech, VRXcallback cb, void *usrdata);
VRX_API int VRXloadcloudenv(VRXenv **envP, const char *logfilename, const char *accessID,
                            const char *secretKey, const char *pool, int priority);
VRX_API int VRXloadcloudenvadv(VRXenv **envP, const char *logfilename,
                               const char *accessID, const char *secretKey,
                               const char *pool, int priority, int apitype, int major,
                               int minor, int tech, VRXcallback cb, void *usrdata);
VRX_API void VRXfreeenv(VRXenv *env);
VRX_API VRXenv *VRXgetenv(VRXmodel *model);
VRX_API VRXenv *VRXgetconcurrentenv(VRXmodel *model, int num);
VRX_API void VRXdiscardconcurrentenvs(VRXmodel *model);
VRX_API VRXenv *VRXgetmultiobjenv(VRXmodel *model, int num);
VRX_API void VRXdiscardmultiobjenvs(VRXmodel *model);

VRX_API const char *VRXgeterrormsg(VRXenv *env);
VRX_API const char *VRXgetmerrormsg(VRXmodel *model);
VRX_API void VRXversion(int *majorP, int *minorP, int *technicalP);
VRX_API const char *VRXplatform(void);
VRX_API const char *VRXgitrevision(void);
VRX_API int VRXsnprintf(char *buf, size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
VRX_API int VRXvsnprintf(char *buf, size_t size, const char *fmt, va_list ap);
VRX_API int VRXcheckmodel(VRXmodel *model);
VRX_API void VRXsetsignal(VRXmodel *model);
VRX_API int VRXterminate(VRXmodel *model);

VRX_API int VRXgetusername(char *buffer);
VRX_API int VRXgethostname(char *buffer);
VRX_API int VRXgetcpu(char *buffer);
VRX_API int VRXgetcores(void);
VRX_API int VRXgetsockets(void);

/* ---- Logging ---- */
VRX_API int VRXmsg(VRXenv *env, const char *message);
VRX_API int VRXsetlogfile(VRXenv *env, FILE *logfile);
VRX_API int VRXgetlogfile(VRXenv *env, FILE **logfileP);
VRX_API int VRXsetlogcallbackfuncenv(VRXenv *env, VRXlogcallback cb);

/* ---- Parameters ---- */
VRX_API int VRXgetintparam(VRXenv *env, const char *paramname, int *valueP);
VRX_API int VRXgetdblparam(VRXenv *env, const char *paramname, double *valueP);
VRX_API int VRXgetstrparam(VRXenv *env, const char *paramname, char *value);
VRX_API int VRXsetintparam(VRXenv *env, const char *paramname, int value);
VRX_API int VRXsetdblparam(VRXenv *env, const char *paramname, double value);
VRX_API int VRXsetstrparam(VRXenv *env, const char *paramname, const char *value);
VRX_API int VRXsetparam(VRXenv *env, const char *paramname, const char *value);
VRX_API int VRXgetintparaminfo(VRXenv *env, const char *paramname, int *valueP, int *minP,
                               int *maxP, int *defP);
VRX_API int VRXgetdblparaminfo(VRXenv *env, const char *paramname, double *valueP,
                               double *minP, double *maxP, double *defP);
VRX_API int VRXgetstrparaminfo(VRXenv *env, const char *paramname, char *valueP,
                               char *defP);
VRX_API int VRXgetparamtype(VRXenv *env, const char *paramname);
VRX_API int VRXgetnumparams(VRXenv *env);
VRX_API int VRXgetparamname(VRXenv *env, int i, char **paramnameP);
VRX_API int VRXresetparams(VRXenv *env);
VRX_API int VRXcopyparams(VRXenv *dest, VRXenv *src);
VRX_API int VRXreadparams(VRXenv *env, const char *filename);
VRX_API int VRXwriteparams(VRXenv *env, const char *filename);

/* ---- Model store ---- */
VRX_API int VRXnewmodel(VRXenv *env, VRXmodel **modelP, const char *Pname, int numvars,
                        const double *obj, const double *lb, const double *ub,
                        const char *vtype, char **varnames);
VRX_API int VRXloadmodel(VRXenv *env, VRXmodel **modelP, const char *Pname, int numvars,
                         int numconstrs, int objsense, double objcon, const double *obj,
                         const char *sense, const double *rhs, const int *vbeg,
                         const int *vlen, const int *vind, const double *vval,
                         const double *lb, const double *ub, const char *vtype,
                         char **varnames, char **constrnames);
VRX_API int VRXXloadmodel(VRXenv *env, VRXmodel **modelP, const char *Pname, int numvars,
                          int numconstrs, int objsense, double objcon, const double *obj,
                          const char *sense, const double *rhs, const size_t *vbeg,
                          const int *vlen, const int *vind, const double *vval,
                          const double *lb, const double *ub, const char *vtype,
                          char **varnames, char **constrnames);
VRX_API int VRXfreemodel(VRXmodel *model);
VRX_API VRXmodel *VRXcopymodel(VRXmodel *model);
VRX_API VRXmodel *VRXpresolvemodel(VRXmodel *model);
VRX_API int VRXgetvars(VRXmodel *model, int *numnzP, int *vbeg, int *vind, double *vval,
                       int start, int len);
VRX_API int VRXXgetvars(VRXmodel *model, size_t *numnzP, size_t *vbeg, int *vind,
                        double *vval, int start, int len);
VRX_API int VRXgetconstrs(VRXmodel *model, int *numnzP, int *cbeg, int *cind, double *cval,
                          int start, int len);
VRX_API int VRXXgetconstrs(VRXmodel *model, size_t *numnzP, size_t *cbeg, int *cind,
                           double *cval, int start, int len);
VRX_API int VRXgetcoeff(VRXmodel *model, int constr, int var, double *valP);
VRX_API int VRXgetsos(VRXmodel *model, int *nummembersP, int *sostype, int *beg, int *ind,
                      double *weight, int start, int len);
VRX_API int VRXgetq(VRXmodel *model, int *numqnzP, int *qrow, int *qcol, double *qval);
VRX_API int VRXgetqconstr(VRXmodel *model, int qconstr, int *numlnzP, int *lind,
                          double *lval, int *numqnzP, int *qrow, int *qcol, double *qval);
VRX_API void VRXclean2(int *lenP, int *ind, double *val);
VRX_API void VRXclean3(int *lenP, int *ind0, int *ind1, double *val);

/* ---- Files ---- */
VRX_API int VRXreadmodel(VRXenv *env, const char *filename, VRXmodel **modelP);
VRX_API int VRXread(VRXmodel *model, const char *filename);
VRX_API int VRXwrite(VRXmodel *model, const char *filename);
VRX_API int VRXfiletype(const char *filename);
VRX_API int VRXismodelfile(const char *filename);
VRX_API int VRXisrecordfile(const char *filename);

/* ---- Names ---- */
VRX_API int VRXgetvarbyname(VRXmodel *model, const char *name, int *indexP);
VRX_API int VRXgetconstrbyname(VRXmodel *model, const char *name, int *indexP);

/* ---- Attributes ---- */
VRX_API int VRXgetintattr(VRXmodel *model, const char *attrname, int *valueP);
VRX_API int VRXsetintattr(VRXmodel *model, const char *attrname, int newvalue);
VRX_API int VRXgetdblattr(VRXmodel *model, const char *attrname, double *valueP);
VRX_API int VRXsetdblattr(VRXmodel *model, const char *attrname, double newvalue);
VRX_API int VRXgetstrattr(VRXmodel *model, const char *attrname, char **valueP);
VRX_API int VRXsetstrattr(VRXmodel *model, const char *attrname, const char *newvalue);
VRX_API int VRXgetcharattrarray(VRXmodel *model, const char *attrname, int start, int len, char *values);
VRX_API int VRXsetcharattrarray(VRXmodel *model, const char *attrname, int start, int len, const char *values);
VRX_API int VRXgetcharattrelement(VRXmodel *model, const char *attrname, int element, char *valueP);
VRX_API int VRXsetcharattrelement(VRXmodel *model, const char *attrname, int element, char newvalue);
VRX_API int VRXgetcharattrlist(VRXmodel *model, const char *attrname, int len, const int *ind, char *values);
VRX_API int VRXsetcharattrlist(VRXmodel *model, const char *attrname, int len, const int *ind, const char *values);
VRX_API int VRXgetintattrarray(VRXmodel *model, const char *attrname, int start, int len, int *values);
VRX_API int VRXsetintattrarray(VRXmodel *model, const char *attrname, int start, int len, const int *values);
VRX_API int VRXgetintattrelement(VRXmodel *model, const char *attrname, int element, int *valueP);
VRX_API int VRXsetintattrelement(VRXmodel *model, const char *attrname, int element, int newvalue);
VRX_API int VRXgetintattrlist(VRXmodel *model, const char *attrname, int len, const int *ind, int *values);
VRX_API int VRXsetintattrlist(VRXmodel *model, const char *attrname, int len, const int *ind, const int *values);
VRX_API int VRXgetdblattrarray(VRXmodel *model, const char *attrname, int start, int len, double *values);
VRX_API int VRXsetdblattrarray(VRXmodel *model, const char *attrname, int start, int len, const double *values);
VRX_API int VRXgetdblattrelement(VRXmodel *model, const char *attrname, int element, double *valueP);
VRX_API int VRXsetdblattrelement(VRXmodel *model, const char *attrname, int element, double newvalue);
VRX_API int VRXgetdblattrlist(VRXmodel *model, const char *attrname, int len, const int *ind, double *values);
VRX_API int VRXsetdblattrlist(VRXmodel *model, const char *attrname, int len, const int *ind, const double *values);
VRX_API int VRXgetstrattrarray(VRXmodel *model, const char *attrname, int start, int len, char **values);
VRX_API int VRXsetstrattrarray(VRXmodel *model, const char *attrname, int start, int len, char *const *values);
VRX_API int VRXgetstrattrelement(VRXmodel *model, const char *attrname, int element, char **valueP);
VRX_API int VRXsetstrattrelement(VRXmodel *model, const char *attrname, int element, const char *newvalue);
VRX_API int VRXgetstrattrlist(VRXmodel *model, const char *attrname, int len, const int *ind, char **values);
VRX_API int VRXsetstrattrlist(VRXmodel *model, const char *attrname, int len, const int *ind, char *const *values);
VRX_API int VRXgetattrinfo(VRXmodel *model, const char *attrname, int *datatypeP, int *attrtypeP, int *settableP);
VRX_API int VRXisattravailable(VRXmodel *model, const char *attrname);
VRX_API int VRXgetnumattributes(VRXmodel *model);
VRX_API int VRXgetattrname(VRXmodel *model, int i, char **attrnameP);

/* ---- Pending changes ---- */
VRX_API int VRXaddvar(VRXmodel *model, int numnz, const int *vind, const double *vval,
                      double obj, double lb, double ub, char vtype, const char *varname);
VRX_API int VRXaddvars(VRXmodel *model, int numvars, int numnz, const int *vbeg,
                       const int *vind, const double *vval, const double *obj,
                       const double *lb, const double *ub, const char *vtype,
                       char **varnames);
VRX_API int VRXXaddvars(VRXmodel *model, int numvars, size_t numnz, const size_t *vbeg,
                        const int *vind, const double *vval, const double *obj,
                        const double *lb, const double *ub, const char *vtype,
                        char **varnames);
VRX_API int VRXaddconstr(VRXmodel *model, int numnz, const int *cind, const double *cval,
                         char sense, double rhs, const char *constrname);
VRX_API int VRXaddconstrs(VRXmodel *model, int numconstrs, int numnz, const int *cbeg,
                          const int *cind, const double *cval, const char *sense,
                          const double *rhs, char **constrnames);
VRX_API int VRXXaddconstrs(VRXmodel *model, int numconstrs, size_t numnz, const size_t *cbeg,
                           const int *cind, const double *cval, const char *sense,
                           const double *rhs, char **constrnames);
VRX_API int VRXaddrangeconstr(VRXmodel *model, int numnz, const int *cind, const double *cval,
                              double lower, double upper, const char *constrname);
VRX_API int VRXaddrangeconstrs(VRXmodel *model, int numconstrs, int numnz, const int *cbeg,
                               const int *cind, const double *cval, const double *lower,
                               const double *upper, char **constrnames);
VRX_API int VRXXaddrangeconstrs(VRXmodel *model, int numconstrs, size_t numnz,
                                const size_t *cbeg, const int *cind, const double *cval,
                                const double *lower, const double *upper, char **constrnames);
VRX_API int VRXchgcoeffs(VRXmodel *model, int cnt, const int *cind, const int *vind,
                         const double *val);
VRX_API int VRXXchgcoeffs(VRXmodel *model, size_t cnt, const int *cind, const int *vind,
                          const double *val);
VRX_API int VRXdelvars(VRXmodel *model, int numdel, const int *ind);
VRX_API int VRXdelconstrs(VRXmodel *model, int numdel, const int *ind);
VRX_API int VRXaddsos(VRXmodel *model, int numsos, int nummembers, const int *types,
                      const int *beg, const int *ind, const double *weight);
VRX_API int VRXdelsos(VRXmodel *model, int len, const int *ind);
VRX_API int VRXaddqpterms(VRXmodel *model, int numqnz, const int *qrow, const int *qcol,
                          const double *qval);
VRX_API int VRXdelq(VRXmodel *model);
VRX_API int VRXaddqconstr(VRXmodel *model, int numlnz, const int *lind, const double *lval,
                          int numqnz, const int *qrow, const int *qcol, const double *qval,
                          char sense, double rhs, const char *QCname);
VRX_API int VRXdelqconstrs(VRXmodel *model, int len, const int *ind);
VRX_API int VRXaddgenconstrMax(VRXmodel *model, const char *name, int resvar, int nvars,
                               const int *vars, double constant);
VRX_API int VRXaddgenconstrMin(VRXmodel *model, const char *name, int resvar, int nvars,
                               const int *vars, double constant);
VRX_API int VRXaddgenconstrAbs(VRXmodel *model, const char *name, int resvar, int argvar);
VRX_API int VRXaddgenconstrAnd(VRXmodel *model, const char *name, int resvar, int nvars,
                               const int *vars);
VRX_API int VRXaddgenconstrOr(VRXmodel *model, const char *name, int resvar, int nvars,
                              const int *vars);
VRX_API int VRXaddgenconstrIndicator(VRXmodel *model, const char *name, int binvar,
                                     int binval, int nvars, const int *ind,
                                     const double *val, char sense, double rhs);
VRX_API int VRXdelgenconstrs(VRXmodel *model, int len, const int *ind);
VRX_API int VRXaddcone(VRXmodel *model, int nummembers, const int *members);
VRX_API int VRXsetobjective(VRXmodel *model, int sense, double constant, int lnz,
                            const int *lind, const double *lval, int qnz, const int *qrow,
                            const int *qcol, const double *qval);
VRX_API int VRXsetpwlobj(VRXmodel *model, int var, int npoints, const double *x,
                         const double *y);
VRX_API int VRXgetpwlobj(VRXmodel *model, int var, int *npointsP, double *x, double *y);
VRX_API int VRXsetobjectiven(VRXmodel *model, int index, int priority, double weight,
                             double abstol, double reltol, const char *name, double constant,
                             int lnz, const int *lind, const double *lval);
VRX_API int VRXgetgenconstrMax(VRXmodel *model, int id, int *resvarP, int *nvarsP, int *vars,
                               double *constantP);
VRX_API int VRXgetgenconstrMin(VRXmodel *model, int id, int *resvarP, int *nvarsP, int *vars,
                               double *constantP);
VRX_API int VRXgetgenconstrAbs(VRXmodel *model, int id, int *resvarP, int *argvarP);
VRX_API int VRXgetgenconstrAnd(VRXmodel *model, int id, int *resvarP, int *nvarsP, int *vars);
VRX_API int VRXgetgenconstrOr(VRXmodel *model, int id, int *resvarP, int *nvarsP, int *vars);
VRX_API int VRXgetgenconstrIndicator(VRXmodel *model, int id, int *binvarP, int *binvalP,
                                     int *nvarsP, int *ind, double *val, char *senseP,
                                     double *rhsP);
VRX_API int VRXupdatemodel(VRXmodel *model);
VRX_API int VRXreset(VRXmodel *model, int clearall);
VRX_API int VRXresetmodel(VRXmodel *model);

/* ---- Callbacks ---- */
VRX_API int VRXsetcallbackfunc(VRXmodel *model, VRXcallback cb, void *usrdata);
VRX_API int VRXgetcallbackfunc(VRXmodel *model, VRXcallback *cbP);
VRX_API int VRXsetlogcallbackfunc(VRXmodel *model, VRXlogcallback cb);
VRX_API int VRXgetcbwhatinfo(int what, int *typeP, int *sizeP);
VRX_API int VRXcbget(void *cbdata, int where, int what, void *resultP);
VRX_API int VRXcbsetparam(void *cbdata, const char *paramname, const char *newvalue);
VRX_API int VRXcbsolution(void *cbdata, const double *solution, double *objvalP);
VRX_API int VRXcbcut(void *cbdata, int cutlen, const int *cutind, const double *cutval,
                     char cutsense, double cutrhs);
VRX_API int VRXcblazy(void *cbdata, int lazylen, const int *lazyind, const double *lazyval,
                      char lazysense, double lazyrhs);
VRX_API int VRXcbstoponemultiobj(VRXmodel *model, void *cbdata, int objnum);

/* ---- Optimize ---- */
VRX_API int VRXoptimize(VRXmodel *model);
VRX_API int VRXoptimizeasync(VRXmodel *model);
VRX_API int VRXsync(VRXmodel *model);

#ifdef __cplusplus
}
#endif

#endif
