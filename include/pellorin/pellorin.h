/* The C interface of the library: a transfer client, its part requests, a delegate made of plain
 * function pointers, the session settings, the library's logging, and reservation files. No C++
 * type crosses it; every event reaches the host as the JSON text of its message.
 *
 * Use:
 *     PLNPellorinClient* client = PLNPellorinClient_standardClient(NULL, 4, 3);
 *     if (client == NULL) { fprintf(stderr, "%s\n", PLNLastError()); return 1; }
 *     PLNClientDelegate delegate = {context, onLog, onStart, ...};
 *     PLNPellorinClient_addDelegate(client, &delegate);
 *     PLNFilePartRequest* part = PLNFilePartRequest_make("/data/a.bin", 1, 0, 8388608,
 *                                                        "https://host/a?part=1", "PUT", NULL, 0);
 *     PLNPellorinClient_uploadPartRequest(client, part);
 *     PLNFilePartRequest_release(part);
 *     int32_t status = PLNPellorinClient_waitUntilFinished(client);  // 0: every part is on the
 *                                                                    // server; 1: a part failed
 *     PLNPellorinClient_release(client);
 *
 * Results: functions returning int32_t give PLN_OK (0) on success and a negative PLN_ERROR_* code
 * otherwise; functions returning a pointer give NULL on failure. Either way PLNLastError() then
 * tells why. No argument makes a function stop the process or block for ever.
 *
 * Ownership: every object returned by a _standardClient, _make or _read function belongs to the
 * caller until it is passed to the matching _release function. Strings passed in are copied;
 * strings handed to callbacks are valid only during the call; strings returned by getters live
 * as long as the object they were read from.
 *
 * Threads: every function may be called from any thread, also on one client from several threads
 * at once, with one exception: no call on a client may overlap or follow its
 * PLNPellorinClient_release. Callbacks run on the client's delegate queue, one at a time, and
 * must not block it; from inside one of them, PLNPellorinClient_waitUntilFinished, _release,
 * _addDelegate and _removeDelegate of the same client are refused with PLN_ERROR_STATE (they
 * would wait for the callback itself), while PLNPellorinClient_invalidateAndCancel is allowed. */
#ifndef PELLORIN_PELLORIN_H
#define PELLORIN_PELLORIN_H

#include <stddef.h>
#include <stdint.h>

#include <pellorin/Export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. */
enum {
    PLN_OK = 0,
    PLN_PARTS_FAILED = 1,            /* waitUntilFinished only: at least one part failed */
    PLN_ERROR_INVALID_ARGUMENT = -1, /* a NULL handle or pointer, a value out of range */
    PLN_ERROR_STATE = -2,            /* not at this moment: the transfer is running or over, the
                                        client was cancelled, or the call came from a callback */
    PLN_ERROR_IO = -3,               /* a file could not be read or written */
    PLN_ERROR_TIMEOUT = -4,          /* no answer in the time given */
    PLN_ERROR_INTERNAL = -5          /* anything else; PLNLastError says what */
};

/* A transfer client (PellorinClient), one part of an upload (FilePartRequest) and the parts of a
 * reservation file. Opaque. */
typedef struct PLNPellorinClient PLNPellorinClient;
typedef struct PLNFilePartRequest PLNFilePartRequest;
typedef struct PLNReservationFile PLNReservationFile;

/* One request header. */
typedef struct PLNHeader {
    const char* name;
    const char* value;
} PLNHeader;

/* An event: `json` is the message's JSON object (for example {"path":"/data/a.bin",
 * "partNumber":3,"retryCount":0} for a part start), valid only during the call. */
typedef void (*PLNEventCallback)(void* context, PLNPellorinClient* client, const char* json);
/* The end of a transfer: the exit status and the metrics' JSON. */
typedef void (*PLNFinishCallback)(void* context, PLNPellorinClient* client, int32_t status,
                                  const char* metricsJson);

/* The delegate protocol as a table. A null entry means nothing to do for that event. */
typedef struct PLNClientDelegate {
    void* context;                           /* handed back to every callback; owned by the host */
    PLNEventCallback logMessage;             /* LoggingMessage */
    PLNEventCallback didStartPart;           /* PartStartedMessage */
    PLNEventCallback didReceivePartProgress; /* PartProgressMessage */
    PLNEventCallback willRetryPart;          /* PartRetryMessage */
    PLNEventCallback partDidComplete;        /* PartCompleteMessage */
    PLNEventCallback partDidFail;            /* PartFailureMessage */
    PLNEventCallback didReceiveFileProgress; /* FileProgressMessage */
    PLNFinishCallback didFinishWithStatus;   /* status and MetricsMessage */
} PLNClientDelegate;

/* Why the last call on this thread failed; "" after a call that succeeded. Valid until the next
 * call on this thread. */
PELLORIN_EXPORT const char* PLNLastError(void);
/* The PLN_ERROR_* code of that call (PLN_OK after a success): what a NULL result meant. */
PELLORIN_EXPORT int32_t PLNLastErrorCode(void);

/* The library's bundle identifier and its version ("" when unknown). Static strings. */
PELLORIN_EXPORT const char* PLNPellorinClient_bundle(void);
PELLORIN_EXPORT const char* PLNPellorinClient_versionString(void);

/* ---- The client ------------------------------------------------------------------------- */

/* A client for one transfer: `rateLimit` in KB/s (1 to UINT64_MAX / 1000), or NULL for no limit;
 * at most `maxConnections` (at least 1) parts in flight; `maxRetries` retries per part. NULL when
 * an argument is out of range. */
PELLORIN_EXPORT PLNPellorinClient* PLNPellorinClient_standardClient(const uint64_t* rateLimit,
                                                                    uint8_t maxConnections,
                                                                    uint8_t maxRetries);
/* Registers a delegate; the table is copied. A table added twice is called twice. Allowed at any
 * time, also during the transfer: events after the call returns reach it. */
PELLORIN_EXPORT int32_t PLNPellorinClient_addDelegate(PLNPellorinClient* client,
                                                      const PLNClientDelegate* delegate);
/* Removes every registered table equal to `*delegate` (same context, same functions). When it
 * returns, none of them is running or will be called again. PLN_ERROR_INVALID_ARGUMENT when no
 * such table is registered. */
PELLORIN_EXPORT int32_t PLNPellorinClient_removeDelegate(PLNPellorinClient* client,
                                                         const PLNClientDelegate* delegate);

/* Session settings, applied to every part's connection. Only before waitUntilFinished
 * (PLN_ERROR_STATE after). A NULL text restores the default. */
/* CA bundle file and/or folder of hashed CA certificates to trust instead of the system's store;
 * must exist. */
PELLORIN_EXPORT int32_t PLNPellorinClient_setCAFile(PLNPellorinClient* client, const char* path);
PELLORIN_EXPORT int32_t PLNPellorinClient_setCADirectory(PLNPellorinClient* client,
                                                         const char* path);
/* Proxy URL ("http://host:port"). Default: no proxy, whatever the environment says. */
PELLORIN_EXPORT int32_t PLNPellorinClient_setProxy(PLNPellorinClient* client, const char* url);
enum { PLN_HTTP_1_1 = 1, PLN_HTTP_2 = 2 };
/* PLN_HTTP_1_1 (the default) or PLN_HTTP_2 (over TLS when the URL is https; without TLS the
 * server must speak it from the first byte). */
PELLORIN_EXPORT int32_t PLNPellorinClient_setHttpVersion(PLNPellorinClient* client,
                                                         int32_t version);
/* Idle time-out in seconds (finite, above 0; default 60): an attempt fails as timed out when no
 * byte has moved for this long. */
PELLORIN_EXPORT int32_t PLNPellorinClient_setIdleTimeout(PLNPellorinClient* client, double seconds);
/* Lowest TLS version accepted, as on the wire: 0x0301 (1.0) to 0x0304 (1.3); default 0x0303. */
PELLORIN_EXPORT int32_t PLNPellorinClient_setMinimumTLSVersion(PLNPellorinClient* client,
                                                               int32_t version);

/* Queues a part; the client keeps its own reference, so the caller may release `part` at once.
 * Only before waitUntilFinished and before a cancellation: PLN_ERROR_STATE ("transfer already
 * running", "transfer already finished", "client cancelled") otherwise, the part not sent. */
PELLORIN_EXPORT int32_t PLNPellorinClient_uploadPartRequest(PLNPellorinClient* client,
                                                            const PLNFilePartRequest* part);
/* Runs the transfer; blocks until every part has completed or failed, and until the
 * didFinishWithStatus callbacks have returned. PLN_OK (0) when no part failed (also at once when
 * none was queued), PLN_PARTS_FAILED (1) otherwise, a negative code when the call is refused: a
 * NULL client, a wait already running, or a call from one of this client's callbacks. Once the
 * transfer is over, a later call returns its status again. */
PELLORIN_EXPORT int32_t PLNPellorinClient_waitUntilFinished(PLNPellorinClient* client);
/* Cancels: parts in flight end as cancelled, waiting parts fail, no part can be added. Returns at
 * once; a second call does nothing more. Allowed from callbacks and signal-watching threads. */
PELLORIN_EXPORT int32_t PLNPellorinClient_invalidateAndCancel(PLNPellorinClient* client);
/* Releases the client and its delegate tables; no callback runs after it returns. Refused
 * (PLN_ERROR_STATE, nothing released) while waitUntilFinished runs or from one of the client's
 * callbacks. NULL is accepted and does nothing. */
PELLORIN_EXPORT int32_t PLNPellorinClient_release(PLNPellorinClient* client);

/* ---- Parts ------------------------------------------------------------------------------ */

/* A part: bytes [offset, offset + length) of `filePath`, sent to `url` with `method` and the
 * given headers (a later header of the same name replaces an earlier one). `headers` NULL means
 * no header dictionary at all, as opposed to an empty one. NULL when a string argument is NULL,
 * `filePath` or `method` is empty, or `url` is not an absolute URL. The file is read only when
 * the part is sent. */
PELLORIN_EXPORT PLNFilePartRequest* PLNFilePartRequest_make(
    const char* filePath, uint64_t partNumber, uint64_t offset, uint64_t length, const char* url,
    const char* method, const PLNHeader* headers, size_t headerCount);
/* As PLNFilePartRequest_make with headers in the header-array form: an element whose name or
 * value is NULL is skipped, and the dictionary is present (possibly empty) even when
 * `headersArray` is NULL. */
PELLORIN_EXPORT PLNFilePartRequest* PLNFilePartRequest_makeWithHeadersArray(
    const char* filePath, uint64_t partNumber, uint64_t offset, uint64_t length, const char* url,
    const char* method, const PLNHeader* headersArray, size_t headerCount);
/* The part's description; NULL or 0 for a NULL part. */
PELLORIN_EXPORT const char* PLNFilePartRequest_filePath(const PLNFilePartRequest* part);
PELLORIN_EXPORT uint64_t PLNFilePartRequest_partNumber(const PLNFilePartRequest* part);
PELLORIN_EXPORT uint64_t PLNFilePartRequest_offset(const PLNFilePartRequest* part);
PELLORIN_EXPORT uint64_t PLNFilePartRequest_length(const PLNFilePartRequest* part);
PELLORIN_EXPORT const char* PLNFilePartRequest_url(const PLNFilePartRequest* part);
PELLORIN_EXPORT const char* PLNFilePartRequest_method(const PLNFilePartRequest* part);
PELLORIN_EXPORT void PLNFilePartRequest_release(PLNFilePartRequest* part);

/* ---- Reservation files ------------------------------------------------------------------ */

/* Reads a reservation file (a JSON array of {"filePath", "operation"} objects) and checks each
 * operation: an HTTP method name, an http or https URL, no negative part number, offset or
 * length. File paths are kept as written (relative ones count from the working directory); the
 * files themselves are read only when the parts are sent. NULL when the file cannot be read,
 * does not decode (PLNLastError names the JSON place, e.g. "[3].operation.offset"), fails a
 * check, or reserves nothing (null or []). */
PELLORIN_EXPORT PLNReservationFile* PLNReservationFile_read(const char* path);
PELLORIN_EXPORT size_t PLNReservationFile_count(const PLNReservationFile* reservation);
/* A new part for operation `index` (the caller releases it); NULL when `index` is out of range. */
PELLORIN_EXPORT PLNFilePartRequest* PLNReservationFile_partRequest(
    const PLNReservationFile* reservation, size_t index);
PELLORIN_EXPORT void PLNReservationFile_release(PLNReservationFile* reservation);

/* Asks the reservation service at `endpoint` (an absolute URL) for test upload operations for the
 * local file `filePath` and writes them to `reservationFile` (replaced) as a reservation file.
 * `provider` may be NULL. The call is printed to standard output, password included: keep that
 * output private. Blocks for at most `timeoutSeconds` (above 0): PLN_ERROR_TIMEOUT when no
 * usable answer came by then (the request is then abandoned on a library thread). PLN_ERROR_IO
 * when `filePath` cannot be read or the answer could not be turned into a reservation file, which
 * is then left as it was. For tests and tools: an answer that cannot be decoded and is not UTF-8
 * text still stops the process. */
PELLORIN_EXPORT int32_t PLNReservation_createTestFile(const char* reservationFile,
                                                      const char* filePath, const char* username,
                                                      const char* password, const char* provider,
                                                      const char* endpoint, double timeoutSeconds);
/* The endpoint of reservation service instance `instance`. A string that lives as long as the
 * process. */
PELLORIN_EXPORT const char* PLNReservation_serviceEndpoint(uint8_t instance);

/* ---- Logging ---------------------------------------------------------------------------- */

/* The library's diagnostic lines ("<time> <level> <label> : <message>"). Until one of the
 * functions below is called they go to standard output at level info. The first call takes over
 * the library's logging for the whole process, so make it before making any client: clients
 * made earlier keep writing to standard output. A C++ host that bootstraps the library's
 * LoggingSystem itself must not use these functions. Any thread, except from inside a log
 * callback (PLN_ERROR_STATE). */
enum {
    PLN_LOG_TRACE = 0,
    PLN_LOG_DEBUG = 1,
    PLN_LOG_INFO = 2,
    PLN_LOG_NOTICE = 3,
    PLN_LOG_WARNING = 4,
    PLN_LOG_ERROR = 5,
    PLN_LOG_CRITICAL = 6
};
/* One formatted line, without its newline. Runs on whichever library thread logs, possibly on
 * several at once; must not block. */
typedef void (*PLNLogCallback)(void* context, int32_t level, const char* line);

/* Lines below `level` are dropped (from the next line on). */
PELLORIN_EXPORT int32_t PLNLogging_setLevel(int32_t level);
/* Every line goes to `callback` with `context`; NULL silences the library. When this returns the
 * previous callback is not running and will not be called again. */
PELLORIN_EXPORT int32_t PLNLogging_setCallback(PLNLogCallback callback, void* context);
enum { PLN_LOG_TO_STANDARD_OUTPUT = 0, PLN_LOG_TO_STANDARD_ERROR = 1, PLN_LOG_TO_NOTHING = 2 };
/* Every line goes to standard output, standard error, or nowhere. */
PELLORIN_EXPORT int32_t PLNLogging_setDestination(int32_t destination);

#ifdef __cplusplus
}
#endif

#endif /* PELLORIN_PELLORIN_H */
