/* MD5 helpers over libcrypto. */
#ifndef VYR_MD5_H
#define VYR_MD5_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VYR_MD5_DIGEST_LENGTH 16
#define VYR_MD5_STRING_LENGTH 33 /* 32 hex digits and a terminating zero */

unsigned char *vyr_MD5(const void *data, size_t length, unsigned char *digest);
char *vyr_HexMD5(const void *data, size_t length, char *text);
int vyr_compute_file_md5(const char *path, char *text);

#ifdef __cplusplus
}
#endif

#endif
