/* Compiled as C90 with every warning on: the C interface header must stay valid C. */
#include <pellorin/pellorin.h>

int pellorinCHeaderCheck(void);

static void onLine(void* context, int32_t level, const char* line) {
    (void)context;
    (void)level;
    (void)line;
}

int pellorinCHeaderCheck(void) {
    PLNClientDelegate delegate = {0};
    PLNHeader header = {"X-Name", "value"};
    PLNLogCallback callback = onLine;
    return delegate.context == 0 && header.name != 0 && callback != 0 && PLN_ERROR_STATE < PLN_OK &&
           (int)PLN_HTTP_2 != (int)PLN_LOG_TO_NOTHING;
}
