#include "BusLock.h"

std::recursive_mutex& BusLock::Mutex() {
  static std::recursive_mutex mutex;
  return mutex;
}
