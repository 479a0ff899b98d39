/*
 * liborbsm: the gateway's own user accounts.
 */
#ifndef ORBSM_H
#define ORBSM_H

#include <stddef.h>
#include <stdint.h>

#include "orbiil.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ORBSM_USER_RECORD_SIZE 124

typedef struct OrbSmUser {
    uint32_t reserved;
    int32_t flag;        /* 1 marks a valid account */
    char name[32];
    char password[84];
} OrbSmUser;

#ifdef __cplusplus
static_assert(offsetof(OrbSmUser, flag) == 4, "flag offset");
static_assert(offsetof(OrbSmUser, name) == 8, "name offset");
static_assert(offsetof(OrbSmUser, password) == 40, "password offset");
static_assert(sizeof(OrbSmUser) == ORBSM_USER_RECORD_SIZE, "account record size");
#endif

/* Fills at most *count records (in: capacity, out: filled); 0 on success. */
int OrbSmGetAllUser(OrbIilHandle *handle, int *count, OrbSmUser *users);

#ifdef __cplusplus
}
#endif

#endif /* ORBSM_H */
