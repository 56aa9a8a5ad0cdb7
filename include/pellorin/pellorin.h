/* The C interface of the library: a transfer client, its part requests and a delegate made of
 * plain function pointers. No C++ type crosses it; every event reaches the host as the JSON text
 * of its message.
 *
 * Use:
 *     PLNPellorinClient* client = PLNPellorinClient_standardClient(NULL, 4, 3);
 *     PLNClientDelegate delegate = {context, onLog, onStart, ...};
 *     PLNPellorinClient_addDelegate(client, &delegate);
 *     PLNFilePartRequest* part = PLNFilePartRequest_make("/data/a.bin", 1, 0, 8388608,
 *                                                        "https://host/a?part=1", "PUT", NULL, 0);
 *     PLNPellorinClient_uploadPartRequest(client, part);
 *     PLNFilePartRequest_release(part);
 *     int32_t status = PLNPellorinClient_waitUntilFinished(client);  // 0: no part failed
 *     PLNPellorinClient_release(client);
 *
 * Ownership: every object returned by a _standardClient or _make function belongs to the caller
 * until it is passed to the matching _release function. Strings passed in are copied; strings
 * handed to callbacks are valid only during the call. Threads: as the C++ client
 * (<pellorin/PellorinClient.h>): make, configure, submit and wait on one thread;
 * PLNPellorinClient_invalidateAndCancel may come from any thread; callbacks run on the client's
 * delegate queue, one at a time, and must not block it. */
#ifndef PELLORIN_PELLORIN_H
#define PELLORIN_PELLORIN_H

#include <stddef.h>
#include <stdint.h>

#include <pellorin/Export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A transfer client (PellorinClient) and one part of an upload (FilePartRequest). Opaque. */
typedef struct PLNPellorinClient PLNPellorinClient;
typedef struct PLNFilePartRequest PLNFilePartRequest;

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

/* Why the last call on this thread that returned NULL failed. Valid until the next call. */
PELLORIN_EXPORT const char* PLNLastError(void);

/* The library's bundle identifier and its version ("" when unknown). Static strings. */
PELLORIN_EXPORT const char* PLNPellorinClient_bundle(void);
PELLORIN_EXPORT const char* PLNPellorinClient_versionString(void);

/* A client: `rateLimit` in KB/s, or NULL for no limit (a value above UINT64_MAX / 1000 stops the
 * process, as in the C++ factory); at most `maxConnections` parts in flight; `maxRetries` retries
 * per part. NULL when the client cannot be made. */
PELLORIN_EXPORT PLNPellorinClient* PLNPellorinClient_standardClient(const uint64_t* rateLimit,
                                                                    uint8_t maxConnections,
                                                                    uint8_t maxRetries);
/* Registers a delegate; the table is copied and the client keeps it until it is released. A
 * delegate added twice is called twice. Add delegates before waiting. */
PELLORIN_EXPORT void PLNPellorinClient_addDelegate(PLNPellorinClient* client,
                                                   const PLNClientDelegate* delegate);
/* Queues a part; the client keeps its own reference, so the caller may release `part` at once. */
PELLORIN_EXPORT void PLNPellorinClient_uploadPartRequest(PLNPellorinClient* client,
                                                         const PLNFilePartRequest* part);
/* Runs the transfer; blocks until every part has completed or failed. 0 when no part failed,
 * 1 otherwise; 0 at once when no part was queued. */
PELLORIN_EXPORT int32_t PLNPellorinClient_waitUntilFinished(PLNPellorinClient* client);
/* Cancels: parts in flight end as cancelled, waiting parts fail. Any thread. */
PELLORIN_EXPORT void PLNPellorinClient_invalidateAndCancel(PLNPellorinClient* client);
/* Releases the client and its delegate tables. Not while a callback or a wait is running. */
PELLORIN_EXPORT void PLNPellorinClient_release(PLNPellorinClient* client);

/* A part: bytes [offset, offset + length) of `filePath`, sent to `url` with `method` and the
 * given headers (a later header of the same name replaces an earlier one). `headers` NULL means
 * no header dictionary at all, as opposed to an empty one. NULL, with PLNLastError set, when a
 * string argument is NULL or `url` is not an absolute URL. */
PELLORIN_EXPORT PLNFilePartRequest* PLNFilePartRequest_make(
    const char* filePath, uint64_t partNumber, uint64_t offset, uint64_t length, const char* url,
    const char* method, const PLNHeader* headers, size_t headerCount);
/* As PLNFilePartRequest_make with headers in the header-array form: an element whose name or
 * value is NULL is skipped, and the dictionary is present (possibly empty) even when
 * `headersArray` is NULL. */
PELLORIN_EXPORT PLNFilePartRequest* PLNFilePartRequest_makeWithHeadersArray(
    const char* filePath, uint64_t partNumber, uint64_t offset, uint64_t length, const char* url,
    const char* method, const PLNHeader* headersArray, size_t headerCount);
PELLORIN_EXPORT void PLNFilePartRequest_release(PLNFilePartRequest* part);

#ifdef __cplusplus
}
#endif

#endif /* PELLORIN_PELLORIN_H */
