// Faults of libvirt, where the host calls it. In a test program that links vexa_libvirt_faults, these definitions
// replace the library's, and forward to it unless a test has requested a fault.
#pragma once

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

#include <string>

#include "host/base/not_copyable.h"

namespace vexa::test {

struct LibvirtError {
  int code = VIR_ERR_INTERNAL_ERROR;
  std::string message;
  int system_error = 0;  // errno, for VIR_ERR_SYSTEM_ERROR
  int domain = VIR_FROM_QEMU;
};

// While it lives, this thread's attempts to start a guest fail with the error and do nothing.
class FailingStarts : private NotCopyable {
 public:
  explicit FailingStarts(const LibvirtError& error);
  ~FailingStarts();
};

// The same for ending a guest.
class FailingStops : private NotCopyable {
 public:
  explicit FailingStops(const LibvirtError& error);
  ~FailingStops();
};

// The same for saving the memory of a guest.
class FailingSaves : private NotCopyable {
 public:
  explicit FailingSaves(const LibvirtError& error);
  ~FailingSaves();
};

// The same for pausing a guest.
class FailingSuspends : private NotCopyable {
 public:
  explicit FailingSuspends(const LibvirtError& error);
  ~FailingSuspends();
};

// The same for letting a paused guest run.
class FailingResumes : private NotCopyable {
 public:
  explicit FailingResumes(const LibvirtError& error);
  ~FailingResumes();
};

// The same for moving a guest to other processors, in all threads.
class FailingPins : private NotCopyable {
 public:
  explicit FailingPins(const LibvirtError& error);
  ~FailingPins();
};

// While it lives, no connection can be opened, in any thread: attempts fail with the error.
class FailingConnects : private NotCopyable {
 public:
  explicit FailingConnects(const LibvirtError& error);
  ~FailingConnects();
};
// How many attempts to open a connection there have been since the last FailingConnects began.
int ConnectAttempts();

// While it lives, this thread's lists of networks fail with the error.
class FailingNetworks : private NotCopyable {
 public:
  explicit FailingNetworks(const LibvirtError& error);
  ~FailingNetworks();
};

// While it lives, this thread's connections are reported as dead.
class DeadConnections : private NotCopyable {
 public:
  DeadConnections();
  ~DeadConnections();
};

// The next `count` presses of power buttons, in all threads, succeed and have no effect.
void IgnoreButtonPresses(int count);
// How often a power button was pressed since the last IgnoreButtonPresses.
int ButtonPresses();

// While it lives, guests go off before libvirt has the answer to a press, which then fails.
class ShutDownsBeforeReply : private NotCopyable {
 public:
  ShutDownsBeforeReply();
  ~ShutDownsBeforeReply();
};

// While it lives, libvirt reports this reason for the state of guests that are in `state`, in all threads.
class FakeStateReason : private NotCopyable {
 public:
  FakeStateReason(int state, int reason);
  ~FakeStateReason();
};

// The XML of guests that libvirt reports to this thread; empty: the real XML.
void FakeXml(const std::string& xml);

// The actions of a user with virsh, on the last connection that was opened. False: libvirt refuses.
bool DefineAsUser(const std::string& xml);
bool StartAsUser(const std::string& id);
bool SaveAsUser(const std::string& id);     // its memory is saved to a file of libvirt
bool DestroyAsUser(const std::string& id);  // the machine goes off, as if its system had ended
bool PauseAsUser(const std::string& id);
int StateAsUser(const std::string& id);  // a virDomainState; -1 when libvirt has no such guest
bool AutostartAsUser(const std::string& id);
// libvirt's inactive XML; empty when it has no such guest.
std::string XmlAsUser(const std::string& id);
bool IsAutostartedAsUser(const std::string& id);
// The processors of each virtual CPU of a running guest, and of its emulator: "0-1 3 emulator 0"; empty when it does
// not run.
std::string AffinityAsUser(const std::string& id);

// Reports to the owner of the last opened connection that it is closed, as libvirt does when a daemon ends.
void CloseLastConnection();

}  // namespace vexa::test
