/* Environment lookup: every setting may be spelt with or without "VYR_". */
#ifndef VYR_ENV_H
#define VYR_ENV_H

#ifdef __cplusplus
extern "C" {
#endif

/* The prefixed spelling wins; returns the environment's own text or NULL. */
const char *vyr_getenv(const char *name);

#ifdef __cplusplus
}
#endif

#endif
