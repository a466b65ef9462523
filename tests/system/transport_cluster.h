// Three hosts as three processes with one database, over TLS.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/store/store.h"
#include "host/transport/tls_material.h"
#include "tests/support/matchers.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/system/transport_test_support.h"

namespace vexa::test {

class TransportCluster : public testing::Test {
 protected:
  static constexpr int kHosts = 3;
  static std::string IdOf(int host);

  // Returns when every host serves, and the database has its address and the test's records.
  void SetUp() override;
  // A host's certificate, its key and the authority.
  virtual transport::TlsFiles MakeFiles(const TestAuthority& authority, int host) {
    return authority.FilesOf(IdOf(host));
  }
  // The flags about its listeners other than the Unix socket.
  virtual std::vector<std::string> NetworkFlags(int host);
  // Called with each host's data folder made and the host not started.
  virtual void Prepare(int /*host*/) {}
  // Called once when all hosts serve.
  virtual void PutRecords() {}

  // The folder of a host's data.
  std::string Folder(int host) const;
  // Where other hosts reach it.
  std::string AddressOfHost(int host) const;
  store::Store& database() { return *database_; }
  // Stores the object of a record unchanged.
  void Put(const char* category, const std::string& id, const std::string& text);
  // Stores any value.
  void PutStored(std::initializer_list<std::string_view> key, const std::string& text);
  // Stores the record of a repository that is online.
  void PutRepository(const std::string& id, int host);
  // The value stored under this key; "" if absent.
  std::string Stored(std::initializer_list<std::string_view> key);

  // Stops a host's process without ending it: it takes connections and answers nothing. Never within a commit, which
  // would keep the other hosts from writing, since all of them share one store here.
  void Suspend(int host);
  void Resume(int host);

  // Starts a host that has ended again, with the same data. Returns when it serves.
  void Restart(int host);

  // The reply to a method of VEXA.Test.Host, asked as an administrator.
  Json::Value Ask(int host, const std::string& method, const std::string& body);
  // The same of any API: "VEXA.Virtualization.Guest/get"; with a token as the user that it belongs to.
  Json::Value Call(int host, const std::string& api_and_method, const std::string& body, const std::string& token = "");
  // The reply that `from` gets from `to`.
  Json::Value Relay(int from, int to, const std::string& method, int timeout_s = 0,
                    const std::string& parameters = "{}");
  // What a function of the library gives in the process of `host`: {"result", "out"}. `arguments` are its own, by name.
  Json::Value Library(int host, const std::string& function, Json::Value arguments = Json::Value());

  static int CodeOf(const Json::Value& reply);
  // The newest line of the cluster log, with who caused it.
  Json::Value NewestEntry(int host);

  const transport::TlsFiles& tls(int host) const { return tls_[static_cast<std::size_t>(host)]; }

  const TestAuthority& authority() const { return *authority_; }

  TempDir folder_;
  std::vector<std::unique_ptr<Process>> hosts_;

 private:
  void StartHost(const transport::TlsFiles& tls, int host);
  std::unique_ptr<Process> Launch(int host);

  std::unique_ptr<TestAuthority> authority_;
  std::vector<transport::TlsFiles> tls_;
  std::shared_ptr<store::Store> database_;
};

}  // namespace vexa::test
