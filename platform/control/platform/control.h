/* Controls of the Linux platform for the host and for tests: failure
 * injection into any platform operation, call counting, time scaling,
 * assert and allocation accounting, the log sink, task states. */
#ifndef PLATFORM_PLAT_CONTROL_H
#define PLATFORM_PLAT_CONTROL_H

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Failure injection ----
 * Operations are named by their function name ("RUK_QueueCreate",
 * "DEVM_DB_GetSelfBoardId", "FPC_ChannelCreate", "eventfd_s", ...). After
 * `skip` further calls succeed, the next `times` calls fail with `code`
 * (PLAT_FAIL_FOREVER: every call). Each operation documents what failing
 * means for it (an error status, a null pointer, -1 ...). */
#define PLAT_FAIL_FOREVER 0xFFFFFFFFU
void PLAT_FailSet(const char *op, uint32_t skip, uint32_t times, uint32_t code);
void PLAT_FailClear(const char *op);
void PLAT_FailClearAll(void);
/* Called by every platform operation on entry: counts the call; returns 1
 * and sets *code when this call must fail. op must have static storage (a
 * literal or __func__): its address identifies the operation. */
uint32_t PLAT_FailCheck(const char *op, uint32_t *code);
/* Calls of op since start or the last PLAT_CallCountReset, and how many of
 * them were made to fail. */
uint32_t PLAT_CallCount(const char *op);
uint32_t PLAT_FailHits(const char *op);
void PLAT_CallCountReset(void);
/* Call counting is on from start; a program that does not read the counts
 * (the host, a benchmark) turns it off, so operations that nothing is armed
 * for cost a single load. */
void PLAT_CallCountEnable(uint32_t on);

/* ---- Time ----
 * Delays, watchdog thresholds and sleep(3) (the platform library defines
 * it) are scaled by permille/1000 (1000 = real time; tests use small values
 * to make 10-second waits take milliseconds). */
void PLAT_SetTimeScale(uint32_t permille);
uint32_t PLAT_GetTimeScale(void);
/* Sleeps ms scaled milliseconds (what RUK delays do). */
void PLAT_ScaledSleep(uint32_t ms);

/* ---- Asserts ----
 * Every assert is counted. The log gets "ZAVK assert at <file>:<line>" for
 * the first of a site; repeats within the report interval (10 s, scaled)
 * are summed into one line per interval, "ZAVK assert at <file>:<line>
 * repeated N more time(s) over M ms (T in total)". */
uint32_t PLAT_AssertCount(void);
/* Times ZAVK_Assert was raised at file:line. */
uint32_t PLAT_AssertCountAt(const char *file, uint32_t line);
void PLAT_AssertReset(void);
/* Writes the summaries of repeats not reported yet now (at exit). */
void PLAT_AssertFlushReports(void);

/* ---- Memory accounting (RUK_MemAlloc_F blocks not yet freed) ---- */
uint32_t PLAT_MemOutstanding(void);
uint64_t PLAT_MemOutstandingBytes(void);
typedef void (*PLAT_MEM_REPORT_FN)(const char *handleName, const char *file, uint32_t line, uint32_t blocks,
                                   uint64_t bytes, void *arg);
/* One call per allocation site with outstanding blocks; returns the number of sites. */
uint32_t PLAT_MemLeakReport(PLAT_MEM_REPORT_FN report, void *arg);

/* ---- Log sink ----
 * Every line the platform is given (system log, diagnostic records, debug
 * lines, the platform's own reports) is kept in a ring of the last
 * PLAT_LOG_RING lines and handed to the printer, if one is set. A line is
 * queued by whoever logs and rendered, kept, written and printed by the
 * sink's own thread in queue order; every call below first takes what is
 * queued, so it sees every line logged before it. */
#define PLAT_LOG_RING 8192U
enum PLAT_LOG_KIND {
    PLAT_LOG_ANY = 0,
    PLAT_LOG_SYSLOG = 1,    /* syslog(3) lines, "<prio> text" */
    PLAT_LOG_DIAG = 2,      /* IM agent diagnostic records */
    PLAT_LOG_DEBUG = 3,     /* IM agent debug lines */
    PLAT_LOG_PLATFORM = 4   /* the platform's own reports: asserts, watchdog, leaks */
};
void PLAT_LogWrite(uint32_t kind, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void PLAT_LogWriteV(uint32_t kind, const char *fmt, va_list ap) __attribute__((format(printf, 2, 0)));
/* Lines of this kind (PLAT_LOG_ANY: all) containing text. */
uint32_t PLAT_LogCount(uint32_t kind, const char *text);
/* Sequence number (1-based, in order of writing) of the first line at or
 * after fromSeq of this kind containing text; 0 when none. */
uint64_t PLAT_LogFind(uint32_t kind, const char *text, uint64_t fromSeq);
/* Sequence number of the last line written (0 before any). */
uint64_t PLAT_LogLastSeq(void);
typedef void (*PLAT_LOG_VISIT_FN)(uint32_t kind, uint64_t seq, const char *line, void *arg);
/* Visits the kept lines in order; returns how many. */
uint32_t PLAT_LogVisit(PLAT_LOG_VISIT_FN visit, void *arg);
void PLAT_LogClear(void);
/* The printer gets every line from now on, on the sink's thread (or on the
 * thread of a call that takes the queue); the old one has printed every
 * line logged before the call when it returns. */
typedef void (*PLAT_LOG_PRINTER_FN)(uint32_t kind, const char *line, void *arg);
void PLAT_LogSetPrinter(PLAT_LOG_PRINTER_FN printer, void *arg);
/* Keeps, writes and prints every line queued so far before returning. */
void PLAT_LogFlush(void);
/* Lines lost because the queue was full (the sink's thread could not keep
 * up); a line of the sink reports each loss where it noticed it. */
uint64_t PLAT_LogRecordsDropped(void);
/* Also appends every line, as "<kind> <text>", to the file at path
 * (created or truncated). A thread of the sink writes the file, so the
 * writers of lines never wait on the disk; lines the thread cannot keep up
 * with beyond PLAT_LOG_FILE_BACKLOG bytes are dropped and a line counting
 * them follows. Once the file holds rotateBytes (0: no limit) it becomes
 * "<path>.1", replacing the one before, and a new file starts. NULL closes
 * the file after writing what is pending. 0 on success, 1 when the file
 * cannot be opened (errno set). */
#define PLAT_LOG_FILE_BACKLOG (32U * 1024U * 1024U)
uint32_t PLAT_LogSetFile(const char *path, uint64_t rotateBytes);
/* Lines dropped from the file so far. */
uint64_t PLAT_LogFileDropped(void);

/* ---- Tasks ---- */
typedef struct PLAT_TASK_INFO {
    uint32_t exists;        /* a task of this name was created */
    uint32_t running;       /* its entry has not returned */
    uint32_t exitStatus;    /* the entry's result once it returned */
    int32_t tid;            /* kernel thread id */
    char waitingIn[32];     /* what it last blocked in ("MESH_EpollWait", "FPC_EventRead"), "" if never */
} PLAT_TASK_INFO_S;
/* 0 and the task's state in *info when a task of this name exists, else 1. */
uint32_t PLAT_TaskGetInfo(const char *name, PLAT_TASK_INFO_S *info);
/* Called by blocking platform operations: the calling thread now waits in what. */
void PLAT_TaskMarkWaiting(const char *what);
/* Waits up to timeoutMs (real time) until the named task waits in what; 1 when it does. */
uint32_t PLAT_TaskWaitUntilWaiting(const char *name, const char *what, uint32_t timeoutMs);

/* ---- Patch service: the patch tool's side ---- */
typedef struct PLAT_PATCH_RESULT {
    uint32_t hooksCalled;
    uint32_t hookReturn;     /* the last hook's return value */
    uint32_t outFlag;        /* the last hook's out flag */
    uint32_t replied;        /* 1 when a reply quoted this request */
    uint32_t replyResult;    /* the result the reply carried */
} PLAT_PATCH_RESULT_S;
/* Sends a request (action, library name) to every registered hook. */
uint32_t PLAT_PatchSend(const char *libName, uint32_t action, PLAT_PATCH_RESULT_S *result);
uint32_t PLAT_PatchRestoreCount(void);

/* ---- Dead-loop watchdog ---- */
/* Reports so far (each threshold crossing is one report). */
uint32_t PLAT_DeadloopReports(void);

#ifdef __cplusplus
}
#endif
#endif
