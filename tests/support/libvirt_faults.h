// Faults of libvirt, where the host calls it. These definitions take the place of the library's in a test program that
// links vexa_libvirt_faults, and lead to it unless a test has asked for a fault.
#pragma once

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

#include <string>

namespace vexa::test {

struct LibvirtError {
  int code = VIR_ERR_INTERNAL_ERROR;
  std::string message;
  int system_error = 0;  // errno, of VIR_ERR_SYSTEM_ERROR
  int domain = VIR_FROM_QEMU;
};

// While it lives, this thread's attempts to start a guest fail with the error and do nothing.
class FailingStarts {
 public:
  explicit FailingStarts(const LibvirtError& error);
  ~FailingStarts();
  FailingStarts(const FailingStarts&) = delete;
  FailingStarts& operator=(const FailingStarts&) = delete;
};

// While it lives, no connection can be opened, in any thread: attempts fail with the error.
class FailingOpenings {
 public:
  explicit FailingOpenings(const LibvirtError& error);
  ~FailingOpenings();
  FailingOpenings(const FailingOpenings&) = delete;
  FailingOpenings& operator=(const FailingOpenings&) = delete;
};
// How many connections somebody has tried to open since the last FailingOpenings began.
int Openings();

// While it lives, this thread's lists of networks fail with the error.
class FailingNetworks {
 public:
  explicit FailingNetworks(const LibvirtError& error);
  ~FailingNetworks();
  FailingNetworks(const FailingNetworks&) = delete;
  FailingNetworks& operator=(const FailingNetworks&) = delete;
};

// While it lives, this thread's connections are said to be dead.
class DeadConnections {
 public:
  DeadConnections();
  ~DeadConnections();
  DeadConnections(const DeadConnections&) = delete;
  DeadConnections& operator=(const DeadConnections&) = delete;
};

// The next `count` presses of power buttons, in all threads, succeed and are lost.
void LosePresses(int count);
// How often a power button was pressed since the last LosePresses.
int Presses();

// While it lives, guests are off before libvirt has the answer to a press, which then fails.
class QuickPresses {
 public:
  QuickPresses();
  ~QuickPresses();
  QuickPresses(const QuickPresses&) = delete;
  QuickPresses& operator=(const QuickPresses&) = delete;
};

// While it lives, libvirt gives this reason for the state of guests that are in `state`, in all threads.
class PretendedReason {
 public:
  PretendedReason(int state, int reason);
  ~PretendedReason();
  PretendedReason(const PretendedReason&) = delete;
  PretendedReason& operator=(const PretendedReason&) = delete;
};

// What libvirt tells this thread as the XML of guests; empty: what it is.
void PretendXml(const std::string& xml);

// What a user with virsh does on the last connection that was opened. False: libvirt refuses it.
bool DefineAsUser(const std::string& xml);
bool StartAsUser(const std::string& id);
bool SaveAsUser(const std::string& id);  // its memory goes to a file of libvirt's
bool EndAsUser(const std::string& id);   // the machine is off, as when its system has ended
bool PauseAsUser(const std::string& id);
bool AutostartAsUser(const std::string& id);
// libvirt's inactive XML; empty when it has no such guest.
std::string XmlAsUser(const std::string& id);
bool IsAutostartedAsUser(const std::string& id);

// Tells the owner of the last connection that was opened that it is closed, as libvirt does when a daemon goes.
void CloseLastConnection();

}  // namespace vexa::test
