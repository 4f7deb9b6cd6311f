/* The layout of the public records as a C compiler sees it. Types are the C++ compiler's business. */
#include <rtmpcast/rtmpcast.h>

#include "layout_rows.h"

#define ROW(place, record, field)                                                                            \
    {#record,                                                                                                \
     #field,                                                                                                 \
     place,                                                                                                  \
     offsetof(record, field),                                                                                \
     sizeof(((record *)0)->field),                                                                           \
     _Alignof(__typeof__(((record *)0)->field)),                                                             \
     sizeof(record)},
#define FIRST(record, type, field) ROW('f', record, field)
#define FIELD(record, type, field) ROW('m', record, field)
#define LAST(record, type, field) ROW('l', record, field)
#define OWN(record) {#record, NULL, 'o', 0, 0, 1, sizeof(record)},

const struct LayoutRow kLayoutInC[] = {LAYOUT_ROWS};
const size_t kLayoutInCCount = sizeof kLayoutInC / sizeof kLayoutInC[0];
