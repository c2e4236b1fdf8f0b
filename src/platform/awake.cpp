#include "platform/awake.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

#include "platform/handles.h"

namespace {

// Microseconds that a processor may take to wake up.
constexpr std::int32_t kLatency = 0;

// The request stands as long as the descriptor is open.
Descriptor requestLatency() {
  Descriptor request(open("/dev/cpu_dma_latency", O_WRONLY | O_CLOEXEC));
  if (request && write(request.get(), &kLatency, sizeof kLatency) != sizeof kLatency) {
    request.reset();
  }
  return request;
}

}  // namespace

void keepProcessorsAwake() { static const Descriptor request = requestLatency(); }
