/* What the examples share: printing a result with its name. */
#ifndef VYRIX_EXAMPLE_H
#define VYRIX_EXAMPLE_H

#include <stdio.h>

#include <Vyrix_Api.h>

/* Prints "what: eVYRIX_... (description)" to stderr when r is a failure;
 * returns non-zero then. */
static inline int failed(const char* what, Vyrix_ReturnStatus r) {
    if (r == eVYRIX_RETURN_SUCCESS) return 0;
    fprintf(stderr, "%s: %s (%s)\n", what, Vyrix_GetResultName(r), Vyrix_GetResultDescription(r));
    return 1;
}

#endif
