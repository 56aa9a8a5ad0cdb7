/* Symbol visibility for the shared library: everything is hidden unless marked PELLORIN_EXPORT. */
#pragma once

#if defined(PELLORIN_BUILDING_LIBRARY)
#define PELLORIN_EXPORT __attribute__((visibility("default")))
#else
#define PELLORIN_EXPORT
#endif
