/* Compiled as C99 with every warning on: the C interface header must stay valid C. */
#include <pellorin/pellorin.h>

int pellorinCHeaderCheck(void);

int pellorinCHeaderCheck(void) {
    PLNClientDelegate delegate = {0};
    PLNHeader header = {"X-Name", "value"};
    return delegate.context == 0 && header.name != 0;
}
