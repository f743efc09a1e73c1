// A plugin in a loop of libuv.
#include <uv.h>

#include <cstdio>

#include "digest_service.h"

namespace {

// The plugin's place in the loop: what it waits for, and the time at which it has to be served.
// That is asked for before each sleep.
class PluginHandles {
 public:
  PluginHandles(uv_loop_t* loop, DigestService* service) : service_(service) {
    hub_.data = due_.data = ahead_.data = this;
    uv_poll_init(loop, &hub_, service->plugin().descriptor());
    uv_timer_init(loop, &due_);
    uv_prepare_init(loop, &ahead_);
    uv_poll_start(&hub_, UV_READABLE, [](uv_poll_t* hub, int, int) { of(hub)->step(); });
    uv_prepare_start(&ahead_, [](uv_prepare_t* ahead) { of(ahead)->setTime(); });
  }
  /// They stay the loop's until it has run once more.
  void close() {
    uv_close(reinterpret_cast<uv_handle_t*>(&hub_), nullptr);
    uv_close(reinterpret_cast<uv_handle_t*>(&due_), nullptr);
    uv_close(reinterpret_cast<uv_handle_t*>(&ahead_), nullptr);
  }

 private:
  template <class Handle>
  static PluginHandles* of(const Handle* handle) {
    return static_cast<PluginHandles*>(handle->data);
  }
  void step() { service_->step(); }
  void setTime() {
    const int due = service_->plugin().nextTimeout();
    if (due < 0)
      uv_timer_stop(&due_);
    else
      uv_timer_start(
          &due_, [](uv_timer_t* timer) { of(timer)->step(); }, static_cast<std::uint64_t>(due), 0);
  }

  DigestService* service_;
  uv_poll_t hub_;
  uv_timer_t due_;
  uv_prepare_t ahead_;
};

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  DigestService service;
  uv_loop_t loop;
  uv_loop_init(&loop);
  if (!service.start(argc, argv, [&loop] { uv_stop(&loop); })) {
    uv_loop_close(&loop);
    return 1;
  }
  PluginHandles handles(&loop, &service);
  uv_timer_t beat;
  uv_timer_init(&loop, &beat);
  beat.data = &service;
  uv_timer_start(
      &beat, [](uv_timer_t* timer) { static_cast<DigestService*>(timer->data)->beat(); },
      DigestService::kBeat, DigestService::kBeat);

  uv_run(&loop, UV_RUN_DEFAULT);
  handles.close();
  uv_close(reinterpret_cast<uv_handle_t*>(&beat), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
  return service.finish();
}
