// Only Journal::open makes a journal. Built twice: with CONTROL the factory call must compile,
// without it the direct construction must not.
#include <memory>

#include "pellorin/Journal.h"

int main() {
#ifdef CONTROL
    auto journal = pellorin::host::Journal::open("journal.jnl");
#else
    pellorin::host::Journal direct({}, "journal.jnl", -1);
    auto journal = &direct;
#endif
    return journal ? 0 : 1;
}
