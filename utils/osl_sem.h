// The OS layer's semaphores, used as locks throughout the daemon, and a
// scope guard for them.
#ifndef KESTRIX_UTILS_OSL_SEM_H_
#define KESTRIX_UTILS_OSL_SEM_H_

#include <stdint.h>

#include "utils/plugin_api.h"

#ifdef __cplusplus
extern "C" {
#endif

// A handle points at a platform semaphore; every semaphore starts with the
// count 1 and serves as a lock.
int32_t OSL_SemSize(void);
void* OSL_SemCreate(int32_t scope);
int32_t OSL_SemCreateM(int32_t scope, void* storage);
int32_t OSL_SemDown(void* sem);
int32_t OSL_SemDownInterruptible(void* sem);
int32_t OSL_SemUp(void* sem);
int32_t OSL_SemIsTaken(void* sem);
void OSL_SemDestroyM(void* sem);
KESTRIX_FOR_PLUGINS void OSL_SemDestroy(void* sem);

#ifdef __cplusplus
}  // extern "C"

namespace kestrix {

// Holds an OSL semaphore for the lifetime of the guard.
class SemGuard {
 public:
  explicit SemGuard(void* sem) : sem_(sem) { OSL_SemDown(sem_); }
  ~SemGuard() { OSL_SemUp(sem_); }
  SemGuard(const SemGuard&) = delete;
  SemGuard& operator=(const SemGuard&) = delete;

 private:
  void* sem_;
};

}  // namespace kestrix
#endif

#endif  // KESTRIX_UTILS_OSL_SEM_H_
