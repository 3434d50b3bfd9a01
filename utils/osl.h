// The whole OS layer for the many files that use both halves: semaphores
// (utils/osl_sem.h) and process services (utils/osl_unix_user.h).
#ifndef KESTRIX_UTILS_OSL_H_
#define KESTRIX_UTILS_OSL_H_

#include "utils/osl_sem.h"
#include "utils/osl_unix_user.h"

#endif  // KESTRIX_UTILS_OSL_H_
