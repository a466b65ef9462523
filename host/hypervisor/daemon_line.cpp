#include "host/hypervisor/daemon_line.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "host/base/background_thread.h"
#include "host/base/mutex.h"

namespace vexa::hypervisor {
namespace {

constexpr std::size_t kPartBytes = std::size_t{16} * 1024;
// Then the other users of the event loop get their turn.
constexpr int kPartsPerEvent = 16;
constexpr int kWouldBlock = -2;  // of virStreamRecv
// How long a daemon that reads nothing holds up the end of a line: the product.
constexpr int kClosingPingIntervalS = 1;
constexpr unsigned kClosingMissedPings = 3;
// For a viewer that does not take the rest.
constexpr timeval kRestTimeout{5, 0};

// Threads: the callbacks run on that of libvirt's event loop, Run on the line's own, which alone may wait for libvirt.
// The callbacks and the thread own the object; the thread also owns the stream and the connection.
class DaemonLine : public std::enable_shared_from_this<DaemonLine> {
 public:
  DaemonLine(virConnectPtr connection, virStreamPtr stream, Descriptor socket)
      : connection_(connection), stream_(stream), socket_(std::move(socket)) {}

  // False: nothing will call the object.
  bool Start() {
    const MutexLock lock(mutex_);
    // libvirt drops a reference only if it has taken the callback.
    auto for_socket = std::make_unique<Reference>(shared_from_this());
    auto for_stream = std::make_unique<Reference>(shared_from_this());
    watch_ = virEventAddHandle(socket_.get(), VIR_EVENT_HANDLE_HANGUP, &DaemonLine::OnSocket, for_socket.get(),
                               &DaemonLine::DropReference);
    if (watch_ < 0) return false;
    (void)for_socket.release();
    if (virStreamEventAddCallback(stream_, VIR_STREAM_EVENT_READABLE, &DaemonLine::OnStream, for_stream.get(),
                                  &DaemonLine::DropReference) < 0) {
      virEventRemoveHandle(std::exchange(watch_, -1));
      return false;
    }
    (void)for_stream.release();
    return true;
  }

  void Run(StreamHandle stream, std::shared_ptr<virConnect> connection) {
    SendInput(stream.get());
    End();
    stream.reset();
    connection.reset();
    SendRest();
  }

  void End() {
    const MutexLock lock(mutex_);
    EndLocked();
  }

 private:
  using Reference = std::shared_ptr<DaemonLine>;

  static void DropReference(void* reference) { delete static_cast<Reference*>(reference); }

  static void OnSocket(int /*watch*/, int /*fd*/, int events, void* reference) {
    (*static_cast<Reference*>(reference))->Deliver((events & (VIR_EVENT_HANDLE_ERROR | VIR_EVENT_HANDLE_HANGUP)) != 0);
  }
  static void OnStream(virStreamPtr /*stream*/, int events, void* reference) {
    (*static_cast<Reference*>(reference))->Deliver((events & (VIR_STREAM_EVENT_ERROR | VIR_STREAM_EVENT_HANGUP)) != 0);
  }

  // Until the viewer or the stream ends.
  void SendInput(virStreamPtr stream) {
    std::array<char, kPartBytes> part;
    for (;;) {
      const ssize_t got = ::recv(socket_.get(), part.data(), part.size(), 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return;
      for (std::string_view left(part.data(), static_cast<std::size_t>(got)); !left.empty();) {
        const int sent = virStreamSend(stream, left.data(), left.size());
        if (sent < 0) return;
        left.remove_prefix(static_cast<std::size_t>(sent));
      }
    }
  }

  void Deliver(bool is_broken) {
    const MutexLock lock(mutex_);
    if (has_ended_) return;
    const bool is_open = ReceiveOutput() && SendOutput() && !is_broken && output_.size() <= kMaxWaitingBytes;
    if (!is_open) return EndLocked();
    virEventUpdateHandle(watch_, VIR_EVENT_HANDLE_HANGUP | (output_.empty() ? 0 : VIR_EVENT_HANDLE_WRITABLE));
  }

  // False: the stream has ended.
  bool ReceiveOutput() VEXA_REQUIRES(mutex_) {
    std::array<char, kPartBytes> part;
    for (int i = 0; i < kPartsPerEvent && output_.size() <= kMaxWaitingBytes; ++i) {
      const int got = virStreamRecv(stream_, part.data(), part.size());
      if (got == kWouldBlock) return true;
      if (got <= 0) return false;
      output_.append(part.data(), static_cast<std::size_t>(got));
    }
    return true;
  }

  // False: the viewer is gone.
  bool SendOutput() VEXA_REQUIRES(mutex_) {
    std::size_t sent = 0;
    while (sent < output_.size()) {
      const ssize_t step =
          ::send(socket_.get(), output_.data() + sent, output_.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (step < 0) {
        if (errno != EAGAIN && errno != EINTR) return false;
        break;
      }
      sent += static_cast<std::size_t>(step);
    }
    output_.erase(0, sent);
    return true;
  }

  void EndLocked() VEXA_REQUIRES(mutex_) {
    if (std::exchange(has_ended_, true)) return;
    virEventRemoveHandle(std::exchange(watch_, -1));
    virStreamEventRemoveCallback(stream_);
    // The thread wakes up when it waits for input, and soon when it waits for libvirt.
    ::shutdown(socket_.get(), SHUT_RD);
    virConnectSetKeepAlive(connection_, kClosingPingIntervalS, kClosingMissedPings);
  }

  // What the guest has sent before the end of its line.
  void SendRest() {
    const MutexLock lock(mutex_);
    (void)::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &kRestTimeout, sizeof kRestTimeout);
    for (std::string_view left = output_; !left.empty();) {
      const ssize_t sent = ::send(socket_.get(), left.data(), left.size(), MSG_NOSIGNAL);
      if (sent <= 0) break;
      left.remove_prefix(static_cast<std::size_t>(sent));
    }
    (void)::shutdown(socket_.get(), SHUT_RDWR);
  }

  // Valid until the line has ended, and on its thread a little longer.
  const virConnectPtr connection_;
  const virStreamPtr stream_;
  const Descriptor socket_;
  Mutex mutex_;
  bool has_ended_ VEXA_GUARDED_BY(mutex_) = false;
  int watch_ VEXA_GUARDED_BY(mutex_) = -1;
  std::string output_ VEXA_GUARDED_BY(mutex_);  // for the viewer
};

}  // namespace

Result<Descriptor> SocketOfDaemonLine(std::shared_ptr<virConnect> connection, StreamHandle stream) {
  std::array<int, 2> sockets{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) != 0) {
    return Error(ErrorCode::kInternal, "No sockets can be made for the console");
  }
  Descriptor outer(sockets[0]);
  const auto line = std::make_shared<DaemonLine>(connection.get(), stream.get(), Descriptor(sockets[1]));
  if (!line->Start()) return Error(ErrorCode::kInternal, "libvirt's event loop does not take the console");
  // libvirt's handles, in a form that std::function can copy.
  const auto parts =
      std::make_shared<std::pair<StreamHandle, std::shared_ptr<virConnect>>>(std::move(stream), std::move(connection));
  try {
    StartThreadBlockingSignals([line, parts] {
      line->Run(std::move(parts->first), std::move(parts->second));
    }).detach();
  } catch (const std::system_error&) {
    line->End();
    return Error(ErrorCode::kInternal, "No thread can be started for the console");
  }
  return outer;
}

}  // namespace vexa::hypervisor
