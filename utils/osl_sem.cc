// Semaphores of the operating-system layer: POSIX unnamed semaphores that
// start with the count 1 and serve as the daemon's locks.
#include <errno.h>
#include <semaphore.h>
#include <string.h>

#include "utils/ksxmem.h"
#include "utils/log.h"
#include "utils/osl_sem.h"

extern "C" {

int32_t OSL_SemSize(void) { return static_cast<int32_t>(sizeof(sem_t)); }

void* OSL_SemCreate(int32_t scope) {
  void* sem = ksxmem_memalign(-8, OSL_SemSize(), "SEMC");
  if (OSL_SemCreateM(scope, sem) != 0) {
    ksxmem_free(sem);
    return nullptr;
  }
  return sem;
}

int32_t OSL_SemCreateM(int32_t scope, void* storage) {
  const int shared = scope == 1 ? 0 : 1;
  if (storage == nullptr || sem_init(static_cast<sem_t*>(storage), shared, 1) != 0) {
    OSL_Log(KSX_ERROR, "OSL_SemCreateM failed to create semaphore. [%s]\n", strerror(errno));
    return -1;
  }
  return 0;
}

int32_t OSL_SemDown(void* sem) { return OSL_SemDownInterruptible(sem); }

int32_t OSL_SemDownInterruptible(void* sem) {
  if (sem == nullptr) return -1;
  // A signal ends the wait with EINTR; the holder of a lock must not be
  // able to lose it that way, so the wait starts again.
  while (sem_wait(static_cast<sem_t*>(sem)) != 0) {
    if (errno != EINTR) return -1;
  }
  return 0;
}

int32_t OSL_SemUp(void* sem) {
  if (sem == nullptr) return -1;
  return sem_post(static_cast<sem_t*>(sem));
}

int32_t OSL_SemIsTaken(void* sem) { return 0; }

void OSL_SemDestroyM(void* sem) {
  if (sem != nullptr) sem_destroy(static_cast<sem_t*>(sem));
}

void OSL_SemDestroy(void* sem) {
  if (sem == nullptr) return;
  sem_destroy(static_cast<sem_t*>(sem));
  ksxmem_free(sem);
}

}  // extern "C"
