// Network interfaces in a folder in the place of the machine's /sys, and a virtual switch that answers as one does.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/temp_dir.h"

namespace vexa::test {

class FakeInterfaces {
 public:
  const std::string& root() const { return folder_.path(); }
  std::string Folder(const std::string& name) const { return root() + "/sys/class/net/" + name; }
  void Put(const std::string& name, const std::string& attribute, const std::string& text) const {
    std::ofstream(Folder(name) + "/" + attribute) << text << "\n";
  }

  enum class Cable { kIn, kOut };
  // An interface that is switched on. `marker` is a folder in its own, such as "device" or "bridge".
  void Add(const std::string& name, const std::string& marker = "", Cable cable = Cable::kIn) const {
    std::filesystem::create_directories(Folder(name) + "/" + marker);
    Put(name, "flags", "0x1003");
    Plug(name, cable);
  }
  void AddTap(const std::string& name) const {
    Add(name);
    Put(name, "tun_flags", "0x1002");
  }
  void Plug(const std::string& name, Cable cable) const { Put(name, "carrier", cable == Cable::kIn ? "1" : "0"); }
  // As the kernel shows it: the carrier of such an interface cannot be read.
  void SwitchOff(const std::string& name) const {
    Put(name, "flags", "0x1002");
    std::filesystem::remove(Folder(name) + "/carrier");
    Put(name, "operstate", "down");
  }
  // `upper` is a bridge, bond or switch.
  void MakePort(const std::string& name, const std::string& upper) const {
    Stack(upper, name);
    std::filesystem::create_symlink("../" + upper, Folder(name) + "/master");
  }
  // `upper` is a VLAN, macvtap, …
  void Stack(const std::string& upper, const std::string& lower) const {
    std::filesystem::create_symlink("../" + lower, Folder(upper) + "/lower_" + lower);
    std::filesystem::create_symlink("../" + upper, Folder(lower) + "/upper_" + upper);
  }
  void Unplug(const std::string& name, const std::string& upper) const {
    std::filesystem::remove(Folder(upper) + "/lower_" + name);
    std::filesystem::remove(Folder(name) + "/upper_" + upper);
    std::filesystem::remove(Folder(name) + "/master");
  }

 private:
  TempDir folder_;
};

// Answers each connection to the switch's database below `root` with the same text, in small parts.
class FakeSwitch {
 public:
  FakeSwitch(const std::string& root, std::string answer) : answer_(std::move(answer)) {
    std::filesystem::create_directories(root + "/run/openvswitch");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (root + "/run/openvswitch/db.sock").c_str(), sizeof address.sun_path - 1);
    ::unlink(address.sun_path);
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_, 16), 0);
    thread_ = std::thread([this] { Serve(); });
  }
  ~FakeSwitch() {
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
  }
  FakeSwitch(const FakeSwitch&) = delete;
  FakeSwitch& operator=(const FakeSwitch&) = delete;

  int asked() const { return asked_; }

 private:
  void Serve() {
    for (;;) {
      const int connection = ::accept(listener_, nullptr, nullptr);
      if (connection < 0) return;
      std::array<char, 4096> question{};
      if (::recv(connection, question.data(), question.size(), 0) > 0) ++asked_;
      for (std::size_t at = 0; at < answer_.size(); at += 7) {
        const std::string part = answer_.substr(at, 7);
        if (::send(connection, part.data(), part.size(), MSG_NOSIGNAL) < 0) break;
      }
      // One that says nothing keeps its callers waiting.
      if (answer_.empty()) ::recv(connection, question.data(), question.size(), 0);
      ::close(connection);
    }
  }

  const std::string answer_;
  int listener_ = -1;
  std::atomic<int> asked_ = 0;
  std::thread thread_;
};

// An interface of a switch, as in the rows of its table "Interface".
struct SwitchInterface {
  std::string name;
  std::string type;
  std::string peer = "";
  std::string link_state = "";
};
// The reply of a switch with these bridges and their interfaces.
inline std::string SwitchAnswer(const std::vector<std::pair<std::string, std::vector<SwitchInterface>>>& bridges) {
  std::string bridge_rows;
  std::string port_rows;
  std::string interface_rows;
  int number = 0;
  const auto add = [](std::string& rows, const std::string& row) { rows += (rows.empty() ? "" : ",") + row; };
  for (const auto& [name, interfaces] : bridges) {
    std::string ports;
    for (const SwitchInterface& interface : interfaces) {
      const std::string id = std::to_string(++number);
      const std::string peer = interface.peer.empty() ? "" : R"(["peer",")" + interface.peer + R"("])";
      const std::string link = interface.link_state.empty() ? R"(["set",[]])" : '"' + interface.link_state + '"';
      add(ports, R"(["uuid","p)" + id + R"("])");
      add(port_rows, R"({"_uuid":["uuid","p)" + id + R"("],"interfaces":["uuid","i)" + id + R"("]})");
      add(interface_rows, R"({"_uuid":["uuid","i)" + id + R"("],"name":")" + interface.name + R"(","type":")" +
                              interface.type + R"(","options":["map",[)" + peer + R"(]],"link_state":)" + link + "}");
    }
    // One value stands alone in this protocol.
    const std::string value = interfaces.size() == 1 ? ports : R"(["set",[)" + ports + "]]";
    add(bridge_rows, R"({"name":")" + name + R"(","ports":)" + value + "}");
  }
  return R"({"id":1,"error":null,"result":[{"rows":[)" + bridge_rows + R"(]},{"rows":[)" + port_rows +
         R"(]},{"rows":[)" + interface_rows + "]}]}";
}

}  // namespace vexa::test
