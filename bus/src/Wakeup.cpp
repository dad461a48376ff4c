#include "Wakeup.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace kelbus {

Wakeup::Wakeup() : m_descriptor(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Wakeup::~Wakeup() {
  if (m_descriptor >= 0)
    close(m_descriptor);
}

void Wakeup::Raise() const {
  const std::uint64_t one = 1;
  // Fails only when the counter is about to overflow, and then it is raised.
  [[maybe_unused]] const ssize_t written = write(m_descriptor, &one, sizeof one);
}

void Wakeup::Clear() const {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t read = ::read(m_descriptor, &count, sizeof count);
}

}  // namespace kelbus
