// System information of the platform's core library.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Writes "veskdbud/<version> (<component>; <PRETTY_NAME of /etc/os-release>)"
// into `buffer`. Returns the text's length, or a negative value when the
// arguments are invalid or the text (with its NUL) does not fit in `size`.
int VLIBSysinfoUserAgentGet(const char* component, char* buffer, size_t size);

#ifdef __cplusplus
}
#endif
