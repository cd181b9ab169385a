/* The public header is C: this translation unit must compile with -std=c99. */
#include "quelvin.h"

int header_check_status(void) { return STATUS_OK + STATUS_NOT_SUPPORTED; }
