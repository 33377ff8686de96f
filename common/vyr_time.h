/* The one wall clock of the framework and the plug-in. */
#ifndef VYR_TIME_H
#define VYR_TIME_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Wall-clock microseconds: seconds * 1,000,000 + nanoseconds / 1000. */
uint64_t vyr_time_now_usec(void);

#ifdef __cplusplus
}
#endif

#endif
