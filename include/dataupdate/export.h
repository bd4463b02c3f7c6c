// Symbol visibility of the public interface. The library is built with hidden
// visibility; only what is marked VESKDBUD_EXPORT is part of its ABI.
#pragma once

#if defined(__GNUC__)
#define VESKDBUD_EXPORT __attribute__((visibility("default")))
#else
#define VESKDBUD_EXPORT
#endif
