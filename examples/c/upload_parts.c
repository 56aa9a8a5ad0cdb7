/* Uploads FILE in parts through the C interface: part n holds bytes [offset, offset + PART_BYTES)
 * and is sent with PUT to URL_PREFIX followed by its offset in decimal, e.g.
 * http://127.0.0.1:8080/upload/a.bin?offset= gives .../a.bin?offset=0, ...?offset=1048576, ...
 *
 *     upload_parts FILE URL_PREFIX [PART_BYTES]
 *
 * Built against the installed library with pkg-config:
 *     cc upload_parts.c $(pkg-config --cflags --libs pellorin) -o upload_parts
 *
 * Prints one line per finished part and a summary; exits 0 only when every part arrived intact. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <pellorin/pellorin.h>

/* Callbacks run on the client's delegate queue, one at a time; each gets the event as JSON. */
static void onRetry(void* context, PLNPellorinClient* client, const char* json) {
    (void)context;
    (void)client;
    printf("retry: %s\n", json);
}

static void onComplete(void* context, PLNPellorinClient* client, const char* json) {
    (void)client;
    ++*(unsigned*)context;
    printf("complete: %s\n", json);
}

static void onFail(void* context, PLNPellorinClient* client, const char* json) {
    (void)context;
    (void)client;
    printf("failed: %s\n", json);
}

static void onFinish(void* context, PLNPellorinClient* client, int32_t status,
                     const char* metricsJson) {
    (void)context;
    (void)client;
    printf("finished with status %d: %s\n", (int)status, metricsJson);
}

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: upload_parts FILE URL_PREFIX [PART_BYTES]\n");
        return 2;
    }
    const char* path = argv[1];
    const char* urlPrefix = argv[2];
    uint64_t partBytes = argc == 4 ? strtoull(argv[3], NULL, 10) : 1024 * 1024;
    struct stat info;
    if (stat(path, &info) != 0 || partBytes == 0) {
        fprintf(stderr, "upload_parts: cannot read the size of %s or bad part size\n", path);
        return 2;
    }
    uint64_t fileSize = (uint64_t)info.st_size;

    /* No rate limit, up to four parts at once, three retries per part. */
    PLNPellorinClient* client = PLNPellorinClient_standardClient(NULL, 4, 3);
    if (client == NULL) {
        fprintf(stderr, "upload_parts: %s\n", PLNLastError());
        return 2;
    }
    unsigned completed = 0;
    PLNClientDelegate delegate = {0};
    delegate.context = &completed;
    delegate.willRetryPart = onRetry;
    delegate.partDidComplete = onComplete;
    delegate.partDidFail = onFail;
    delegate.didFinishWithStatus = onFinish;
    PLNPellorinClient_addDelegate(client, &delegate);

    /* One request per part; an empty file is sent as one empty part. */
    uint64_t partNumber = 1;
    uint64_t offset = 0;
    do {
        uint64_t length = fileSize - offset < partBytes ? fileSize - offset : partBytes;
        char url[4096];
        int written = snprintf(url, sizeof url, "%s%llu", urlPrefix, (unsigned long long)offset);
        PLNFilePartRequest* part =
            written > 0 && (size_t)written < sizeof url
                ? PLNFilePartRequest_make(path, partNumber++, offset, length, url, "PUT", NULL, 0)
                : NULL;
        if (part == NULL) {
            fprintf(stderr, "upload_parts: %s\n",
                    written > 0 && (size_t)written < sizeof url ? PLNLastError() : "URL too long");
            PLNPellorinClient_release(client);
            return 2;
        }
        PLNPellorinClient_uploadPartRequest(client, part);
        PLNFilePartRequest_release(part);
        offset += length;
    } while (offset < fileSize);

    int32_t status = PLNPellorinClient_waitUntilFinished(client);
    PLNPellorinClient_release(client);
    printf("%s %s (%u parts complete)\n", status == 0 ? "uploaded" : "upload failed:", path,
           completed);
    return (int)status;
}
