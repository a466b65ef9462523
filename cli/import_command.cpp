#include "cli/import_command.h"

#include <unistd.h>

#include <chrono>
#include <iostream>
#include <thread>
#include <utility>

#include "cli/import_sources.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/error_table.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

constexpr const char* kImport = "/webapi/VEXA.Virtualization.Guest/import";
constexpr auto kCallTimeout = std::chrono::minutes(10);
// Several guests in a call, so that hundreds do not take hundreds of round trips, and few enough that the progress is
// seen, and that replies with their records stay short.
constexpr std::size_t kBatchGuests = 16;
constexpr std::size_t kBatchBytes = std::size_t{4} << 20;
constexpr int kBusyTries = 60;

std::string Count(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

class Import {
 public:
  Import(const GlobalOptions& global, const ImportArguments& arguments, HttpClientOptions connect)
      : global_(global), arguments_(arguments), client_(std::move(connect)) {}

  ExitCode Run(const ImportSources& sources) {
    total_ = sources.guests().size();
    for (const ImportSource& source : sources.guests()) {
      const Result<Json::Value> request = sources.Prepare(source);
      if (!request) {
        Fail(source.label, request.error().ToString(), Json::Value(Json::objectValue));
      } else if (!Add(source.label, *request)) {
        break;
      }
    }
    if (is_stopped_ || !Send()) return Stopped();
    ShowProgress("");
    PrintAll();
    if (failed_ == 0) return ExitCode::kOk;
    std::cerr << "vexa: " << failed_ << " of " << Count(total_, "guest") << " could not be imported\n";
    return ExitCode::kFailed;
  }

 private:
  struct Waiting {
    std::string label;
    std::string request;  // JSON
  };

  bool IsDry() const { return arguments_.mode == ImportMode::kDryRun; }

  // False: a call failed, and no more guests can be sent.
  bool Add(const std::string& label, const Json::Value& request) {
    std::string text = json::ToText(request);
    const bool is_full = batch_.size() == kBatchGuests || (!batch_.empty() && batch_bytes_ + text.size() > kBatchBytes);
    if (is_full && !Send()) return false;
    batch_bytes_ += text.size();
    batch_.push_back({label, std::move(text)});
    return true;
  }

  std::string Body() const {
    std::string body = "{\"guests\":[";
    for (const Waiting& guest : batch_) body += (body.back() == '[' ? "" : ",") + guest.request;
    body += "]";
    if (arguments_.on_existing == OnExisting::kReplace) body += ",\"replace\":true";
    if (IsDry()) body += ",\"dry_run\":true";
    if (IsDry() && !planned_.empty()) body += ",\"planned\":" + json::ToText(planned_);
    return body + "}";
  }

  // A server that is busy has not begun with anything. Definitions contain the passwords of screens.
  CallOutcome Call() {
    const std::string body = Body();
    CallOutcome outcome = TryApi(client_, kImport, body, Secrecy::kSecret);
    for (int i = 1; i < kBusyTries && outcome.code == webapi::kErrorBusy; ++i) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      outcome = TryApi(client_, kImport, body, Secrecy::kSecret);
    }
    return outcome;
  }

  bool Send() {
    if (batch_.empty()) return true;
    ShowProgress(std::to_string(done_) + " of " + Count(total_, "guest"));
    CallOutcome outcome = Call();
    const Json::Value& results = Member(outcome.data, "results");
    if (outcome.exit_code == ExitCode::kOk && (!results.isArray() || results.size() != batch_.size())) {
      outcome.exit_code = ExitCode::kFailed;
      outcome.failure = Printable(NotUnderstood("results of the import").ToString());
    }
    if (outcome.exit_code != ExitCode::kOk) {
      ShowProgress("");
      std::cerr << "vexa: " << outcome.failure << '\n';
      stopped_with_ = outcome.exit_code;
      is_stopped_ = true;
      is_outcome_unknown_ = !outcome.code;
      return false;
    }
    for (Json::ArrayIndex i = 0; i < results.size(); ++i) Take(batch_[i].label, json::Element(results, i));
    batch_.clear();
    batch_bytes_ = 0;
    return true;
  }

  void Take(const std::string& label, const Json::Value& result) {
    if (!result.isObject()) return Fail(label, NotUnderstood("result of a guest").ToString(), Json::Value());
    const Json::Value* const error = json::FindMember(result, "error");
    if (error) {
      const std::string reason = Text(Member(*error, "reason"));
      return Fail(label, reason.empty() ? Text(Member(*error, "message")) : reason, result);
    }
    ++done_;
    if (IsDry()) return Plan(label, result);
    Note(label, result);
    if (global_.quiet || global_.json) return;
    ShowProgress("");
    const auto size = [&](const char* member) {
      return static_cast<std::size_t>(json::UInt64(Member(result, member)));
    };
    std::cout << Printable(label) << (IsTrue(Member(result, "replaced")) ? ": replaced '" : ": imported '")
              << Printable(Text(Member(result, "name"))) << "' (" << Printable(Text(Member(result, "guest_id")))
              << "): " << Count(size("disks"), "disk") << ", " << Count(size("nics"), "network interface") << '\n';
    for (const Json::Value& note : json::Elements(Member(result, "notes"))) {
      std::cout << "  " << Printable(Text(note)) << '\n';
    }
  }

  void Plan(const std::string& label, const Json::Value& result) {
    planned_[Text(Member(result, "guest_id"))] = Text(Member(result, "name"));
    Json::Value records = Member(result, "records");
    if (records.isObject()) Note(label, records);
  }

  void Note(const std::string& label, const Json::Value& result) {
    Json::Value& noted = noted_.append(result);
    noted["source"] = label;
  }

  // `result` has what the server has said.
  void Fail(const std::string& label, const std::string& reason, Json::Value result) {
    ++done_;
    ++failed_;
    ShowProgress("");
    std::cerr << Printable(label) << ": " << Printable(reason) << '\n';
    if (!global_.json || IsDry()) return;
    json::MakeObject(json::MakeObject(result)["error"])["reason"] = reason;
    Note(label, result);
  }

  ExitCode Stopped() {
    PrintAll();
    if (done_ == 0 && !is_outcome_unknown_) return stopped_with_;
    std::cerr << "vexa: Stopped after " << done_ << " of " << Count(total_, "guest");
    if (is_outcome_unknown_ && !IsDry()) {
      std::cerr << "; the next " << batch_.size() << " may have been imported or not: see 'vexa guest list'";
    }
    std::cerr << '\n';
    return stopped_with_;
  }

  void PrintAll() {
    if (IsDry() || global_.json) {
      PrintJson(noted_);
    } else if (total_ == 0 && !global_.quiet) {
      std::cout << "There was nothing to import.\n";
    }
  }

  // Replaces the progress on a terminal; "" removes it.
  void ShowProgress(const std::string& text) {
    if (global_.quiet || ::isatty(STDERR_FILENO) == 0) return;
    if (text.empty() && !has_progress_) return;
    std::cout << std::flush;
    std::cerr << "\r\x1b[K" << text << std::flush;
    has_progress_ = !text.empty();
  }

  const GlobalOptions& global_;
  const ImportArguments& arguments_;
  HttpClient client_;
  std::vector<Waiting> batch_;
  std::size_t batch_bytes_ = 0;
  std::size_t total_ = 0;
  std::size_t done_ = 0;  // guests with a result
  std::size_t failed_ = 0;
  bool is_stopped_ = false;
  bool is_outcome_unknown_ = false;  // of the last call
  ExitCode stopped_with_ = ExitCode::kFailed;
  bool has_progress_ = false;
  Json::Value planned_{Json::objectValue};  // names by id, in a dry run
  Json::Value noted_{Json::arrayValue};     // what is printed as JSON at the end
};

}  // namespace

ExitCode RunImport(const GlobalOptions& global, const ImportArguments& arguments) {
  const Result<ImportSources> sources = ImportSources::Open(arguments);
  if (!sources) {
    std::cerr << "vexa: " << Printable(sources.error().ToString()) << '\n';
    return ExitCode::kFailed;
  }
  Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  if (!global.timeout_s) connect->timeout = kCallTimeout;
  return Import(global, arguments, std::move(*connect)).Run(*sources);
}

}  // namespace vexa::cli
