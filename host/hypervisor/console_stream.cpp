#include "host/hypervisor/console_stream.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <memory>
#include <utility>

#include "host/base/background_thread.h"
#include "host/base/mutex.h"

namespace vexa::hypervisor {
namespace {

constexpr std::size_t kBufferBytes = std::size_t{16} * 1024;
// Then the other users of the event loop get their turn.
constexpr int kBuffersPerEvent = 4;
constexpr int kWouldBlock = -2;  // of virStreamSend and virStreamRecv

// Bytes on their way from one side to the other.
struct Pending {
  std::array<char, kBufferBytes> bytes;
  std::size_t start = 0;
  std::size_t end = 0;

  bool IsEmpty() const { return start == end; }
  const char* data() const { return bytes.data() + start; }
  std::size_t size() const { return end - start; }
  void Drop(std::size_t count) { start += count; }
  void Set(std::size_t count) {
    start = 0;
    end = count;
  }
};

// Threads: Start on any, everything else on that of libvirt's event loop. The callbacks own the object.
class StreamPump : public std::enable_shared_from_this<StreamPump> {
 public:
  StreamPump(StreamHandle stream, Descriptor socket) : stream_(std::move(stream)), socket_(std::move(socket)) {}

  bool Start() {
    const MutexLock lock(mutex_);
    // libvirt drops a reference only if it has taken the callback.
    auto for_socket = std::make_unique<Reference>(shared_from_this());
    auto for_stream = std::make_unique<Reference>(shared_from_this());
    watch_ = virEventAddHandle(socket_.get(), VIR_EVENT_HANDLE_READABLE, &StreamPump::OnSocket, for_socket.get(),
                               &StreamPump::DropReference);
    if (watch_ < 0) return false;
    (void)for_socket.release();
    if (virStreamEventAddCallback(stream_.get(), VIR_STREAM_EVENT_READABLE, &StreamPump::OnStream, for_stream.get(),
                                  &StreamPump::DropReference) < 0) {
      virEventRemoveHandle(std::exchange(watch_, -1));
      return false;
    }
    (void)for_stream.release();
    return true;
  }

 private:
  using Reference = std::shared_ptr<StreamPump>;

  static void DropReference(void* reference) { delete static_cast<Reference*>(reference); }

  static void OnSocket(int /*watch*/, int /*fd*/, int events, void* reference) {
    (*static_cast<Reference*>(reference))->Move((events & (VIR_EVENT_HANDLE_ERROR | VIR_EVENT_HANDLE_HANGUP)) != 0);
  }
  static void OnStream(virStreamPtr /*stream*/, int events, void* reference) {
    (*static_cast<Reference*>(reference))->Move((events & (VIR_STREAM_EVENT_ERROR | VIR_STREAM_EVENT_HANGUP)) != 0);
  }

  void Move(bool is_broken) {
    const MutexLock lock(mutex_);
    if (!stream_) return;
    // What the guest has sent before the end of its stream is still brought over.
    const bool is_open = FromStream() && FromSocket() && !is_broken;
    if (!is_open) return End();
    const int socket_events = VIR_EVENT_HANDLE_HANGUP |  // libvirt does not watch a descriptor without any
                              (to_stream_.IsEmpty() ? VIR_EVENT_HANDLE_READABLE : 0) |
                              (to_socket_.IsEmpty() ? 0 : VIR_EVENT_HANDLE_WRITABLE);
    const int stream_events =
        (to_socket_.IsEmpty() ? VIR_STREAM_EVENT_READABLE : 0) | (to_stream_.IsEmpty() ? 0 : VIR_STREAM_EVENT_WRITABLE);
    virEventUpdateHandle(watch_, socket_events);
    virStreamEventUpdateCallback(stream_.get(), stream_events);
  }

  // False: the stream or the socket has ended.
  bool FromStream() VEXA_REQUIRES(mutex_) {
    for (int i = 0; i < kBuffersPerEvent; ++i) {
      while (!to_socket_.IsEmpty()) {
        const ssize_t sent = ::send(socket_.get(), to_socket_.data(), to_socket_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) return errno == EAGAIN || errno == EINTR;
        to_socket_.Drop(static_cast<std::size_t>(sent));
      }
      const int got = virStreamRecv(stream_.get(), to_socket_.bytes.data(), to_socket_.bytes.size());
      if (got == kWouldBlock) return true;
      if (got <= 0) return false;
      to_socket_.Set(static_cast<std::size_t>(got));
    }
    return true;
  }

  bool FromSocket() VEXA_REQUIRES(mutex_) {
    for (int i = 0; i < kBuffersPerEvent; ++i) {
      while (!to_stream_.IsEmpty()) {
        const int sent = virStreamSend(stream_.get(), to_stream_.data(), to_stream_.size());
        if (sent == kWouldBlock) return true;
        if (sent < 0) return false;
        to_stream_.Drop(static_cast<std::size_t>(sent));
      }
      const ssize_t got = ::recv(socket_.get(), to_stream_.bytes.data(), to_stream_.bytes.size(), MSG_DONTWAIT);
      if (got < 0) return errno == EAGAIN || errno == EINTR;
      if (got == 0) return false;
      to_stream_.Set(static_cast<std::size_t>(got));
    }
    return true;
  }

  void End() VEXA_REQUIRES(mutex_) {
    virEventRemoveHandle(std::exchange(watch_, -1));
    virStreamEventRemoveCallback(stream_.get());
    socket_ = Descriptor();
    // A libvirtd that hangs must not hold the event loop.
    StartThreadBlockingSignals([stream = std::shared_ptr<virStream>(std::move(stream_))] {
      virStreamAbort(stream.get());
    }).detach();
  }

  Mutex mutex_;
  StreamHandle stream_ VEXA_GUARDED_BY(mutex_);  // null: ended
  Descriptor socket_ VEXA_GUARDED_BY(mutex_);
  int watch_ VEXA_GUARDED_BY(mutex_) = -1;
  Pending to_socket_ VEXA_GUARDED_BY(mutex_);
  Pending to_stream_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace

Result<Descriptor> SocketOfStream(StreamHandle stream) {
  std::array<int, 2> sockets{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) != 0) {
    return Error(ErrorCode::kInternal, "No sockets can be made for the console");
  }
  Descriptor outer(sockets[0]);
  const auto pump = std::make_shared<StreamPump>(std::move(stream), Descriptor(sockets[1]));
  if (!pump->Start()) return Error(ErrorCode::kInternal, "libvirt's event loop does not take the console");
  return outer;
}

}  // namespace vexa::hypervisor
