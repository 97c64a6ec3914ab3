/* What the C interface's test programs share: counted checks that print where one failed,
 * and a data callback that counts the head's online code. */
#ifndef ZT_CAPI_CHECK_H
#define ZT_CAPI_CHECK_H

#include "ztProxyC.h"

#include <stdatomic.h>
#include <stdio.h>

static int checks, failures;
#define CHECK(cond)                                                                 \
    do {                                                                            \
        ++checks;                                                                   \
        if (!(cond)) {                                                              \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                             \
        }                                                                           \
    } while (0)

/* Prints the counts; the program's exit status is the number of failed checks. */
static int report(void)
{
    printf("%d checks, %d failed\n", checks, failures);
    return failures;
}

static atomic_int online;
static void onDevice(int code, char* data, int length, void* user)
{
    (void)data;
    (void)length;
    (void)user;
    if (code == ZT_CODE_DEVICE_ONLINE)
        atomic_fetch_add(&online, 1);
}

#endif
