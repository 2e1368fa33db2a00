/* Compiled as strict C11: the public header must be valid C, and its layout
 * assertions must hold for a C compiler as they do for C++. */
#include "tarnwick.h"

_Static_assert(sizeof(mime_address_lists) == 5 * sizeof(void *), "five chain heads");
_Static_assert(offsetof(mime_hdr_field, next) > offsetof(mime_hdr_field, encoding), "order");

int tarnwick_c_header_check(void) { return (int)sizeof(mime_part_desc); }
