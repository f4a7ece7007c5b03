// Baseline: a D-Bus method call through the dbus-daemon whose address is the second argument.
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "child.h"
#include "samples.h"

namespace {

constexpr const char* kPath = "/bench";
constexpr const char* kInterface = "bench.Echo";

sd_bus* Connect(const char* address) {
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
      sd_bus_start(bus) < 0) {
    std::fprintf(stderr, "cannot connect to the bus at %s\n", address);
    return nullptr;
  }
  return bus;
}

int OnCall(sd_bus_message* call, void*, sd_bus_error*) {
  const char* text = nullptr;
  if (const int result = sd_bus_message_read(call, "s", &text); result < 0) return result;
  return sd_bus_reply_method_return(call, "s", text);
}

const sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Call", "s", "s", OnCall, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

void Serve(const char* address, const std::string& name, const std::function<void()>& ready) {
  sd_bus* bus = Connect(address);
  if (bus == nullptr || sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, kMethods, nullptr) < 0 ||
      sd_bus_request_name(bus, name.c_str(), 0) < 0) {
    return;
  }
  ready();
  while (sd_bus_process(bus, nullptr) > 0 || sd_bus_wait(bus, UINT64_MAX) >= 0) {
  }
}

bool RoundTrip(sd_bus* bus, const std::string& name, const std::string& text) {
  sd_bus_message* reply = nullptr;
  const int result =
      sd_bus_call_method(bus, name.c_str(), kPath, kInterface, "Call", nullptr, &reply, "s", text.c_str());
  sd_bus_message_unref(reply);
  return result >= 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: bench_call_dbus COUNT BUS-ADDRESS\n");
    return 2;
  }
  const std::string name = "bench.p" + std::to_string(getpid());
  const bench::Child server([&](const auto& ready) { Serve(argv[2], name, ready); });
  sd_bus* bus = Connect(argv[2]);
  if (bus == nullptr) return 1;
  const std::string text(bench::kPayloadBytes, 'x');
  return bench::MeasureAndPrint(bench::CountArgument(argc, argv, 20'000), [&] { return RoundTrip(bus, name, text); });
}
