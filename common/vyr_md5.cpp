#include "vyr_md5.h"

#include <openssl/evp.h>
#include <stdio.h>
#include <stdlib.h>

unsigned char *vyr_MD5(const void *data, size_t length, unsigned char *digest) {
    if (!digest) return NULL;
    if (!data) data = "", length = 0;  // no data: the digest of nothing
    unsigned int out_len = 0;
    // One-shot EVP digest: the MD5_* calls are deprecated in OpenSSL 3.
    if (!EVP_Digest(data, length, digest, &out_len, EVP_md5(), NULL)) {
        for (int i = 0; i < VYR_MD5_DIGEST_LENGTH; ++i) digest[i] = 0;
    }
    return digest;
}

char *vyr_HexMD5(const void *data, size_t length, char *text) {
    static const char hex[] = "0123456789abcdef";
    if (!text) return NULL;
    unsigned char digest[VYR_MD5_DIGEST_LENGTH];
    vyr_MD5(data, length, digest);
    for (int i = 0; i < VYR_MD5_DIGEST_LENGTH; ++i) {
        text[2 * i] = hex[digest[i] >> 4];
        text[2 * i + 1] = hex[digest[i] & 0xF];
    }
    text[32] = '\0';
    return text;
}

int vyr_compute_file_md5(const char *path, char *text) {
    if (!text) return 0;
    text[0] = '\0';
    FILE *f = path ? fopen(path, "rb") : NULL;
    if (!f) return 0;
    int ok = 0;
    long size = -1;
    if (fseek(f, 0, SEEK_END) == 0) size = ftell(f);
    if (size > 0 && fseek(f, 0, SEEK_SET) == 0) {
        char *buf = (char *)malloc((size_t)size + 1);
        if (buf) {
            size_t got = fread(buf, 1, (size_t)size, f);
            buf[got] = '\0';
            vyr_HexMD5(buf, got, text);
            free(buf);
            ok = 1;
        }
    }
    fclose(f);
    return ok;
}
