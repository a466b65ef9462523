#include "cli/import_command.h"

#include <fmt/format.h>

#include <unistd.h>

#include <chrono>
#include <iostream>
#include <thread>
#include <utility>

#include "cli/import_names.h"
#include "cli/import_sources.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

constexpr const char* kImport = "/webapi/VEXA.Virtualization.Guest/import";
constexpr auto kCallTimeout = std::chrono::minutes(10);
constexpr auto kCopyTimeout = std::chrono::hours(1);  // of one guest
// Each call imports a batch of guests, so that hundreds do not take hundreds of round trips. Batches are small enough
// for a visible progress and for short replies with records.
constexpr std::size_t kBatchGuests = 16;
constexpr std::size_t kBatchBytes = std::size_t{4} << 20;
constexpr int kMaxBusyTries = 60;

std::string Count(std::size_t count, const std::string& noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

class Import {
 public:
  Import(const GlobalOptions& global, const ImportArguments& arguments, HttpClientOptions connect)
      : global_(global), arguments_(arguments), client_(std::move(connect)) {}

  ExitCode Run(ImportSources& sources) {
    total_ = sources.guests().size();
    if (const ExitCode found = ResolveImportNames(client_, sources.guests()); found != ExitCode::kOk) return found;
    for (const ImportSource& source : std::as_const(sources).guests()) {
      const Result<Json::Value> request = sources.Prepare(source);
      if (!request) {
        RecordFailure(source.label, request.error().ToString(), Json::Value(Json::objectValue));
      } else if (!AddToBatch(source.label, *request)) {
        break;
      }
    }
    if (has_stopped_ || !SendBatch()) return ReportStop();
    ShowProgress("");
    PrintAll();
    if (failed_ == 0) return ExitCode::kOk;
    std::cerr << fmt::format("vexa: {} of {} could not be imported\n", failed_, Count(total_, "guest"));
    return ExitCode::kFailed;
  }

 private:
  struct Pending {
    std::string label;
    std::string request;  // JSON
  };

  bool IsDryRun() const { return arguments_.mode == ImportMode::kDryRun; }

  // Adds a guest to the batch, which is sent when it is full. False: a call failed, and no more guests can be sent.
  bool AddToBatch(const std::string& label, const Json::Value& request) {
    std::string text = json::ToText(request);
    const std::size_t most = arguments_.copies_disks ? 1 : kBatchGuests;
    const bool is_full = batch_.size() == most || (!batch_.empty() && batch_bytes_ + text.size() > kBatchBytes);
    if (is_full && !SendBatch()) return false;
    batch_bytes_ += text.size();
    batch_.push_back({label, std::move(text)});
    return true;
  }

  std::string Body() const {
    std::string body = "{\"guests\":[";
    for (const Pending& guest : batch_) body += (body.back() == '[' ? "" : ",") + guest.request;
    body += "]";
    if (arguments_.copies_disks) body += ",\"copy_disks\":true";
    if (arguments_.on_existing == OnExisting::kReplace) body += ",\"replace\":true";
    if (IsDryRun()) body += ",\"dry_run\":true";
    if (IsDryRun() && !planned_.empty()) body += ",\"planned\":" + json::ToText(planned_);
    return body + "}";
  }

  // A busy server has not started any work, so the call is repeated. The body may contain passwords of graphical
  // consoles.
  CallOutcome CallWithRetries() {
    const std::string body = Body();
    CallOutcome outcome = TryApi(client_, kImport, body, Secrecy::kSecret);
    for (int i = 1; i < kMaxBusyTries && outcome.code == user_error::kHostBusy; ++i) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      outcome = TryApi(client_, kImport, body, Secrecy::kSecret);
    }
    return outcome;
  }

  // The same result as AddToBatch.
  bool SendBatch() {
    if (batch_.empty()) return true;
    ShowProgress(fmt::format("{} of {}", done_, Count(total_, "guest")));
    CallOutcome outcome = CallWithRetries();
    const Json::Value& results = Member(outcome.data, "results");
    if (outcome.exit_code == ExitCode::kOk && (!results.isArray() || results.size() != batch_.size())) {
      outcome.exit_code = ExitCode::kFailed;
      outcome.failure = Printable(MissingInReply("results of the import").ToString());
    }
    if (outcome.exit_code != ExitCode::kOk) {
      ShowProgress("");
      std::cerr << "vexa: " << outcome.failure << '\n';
      stop_exit_code_ = outcome.exit_code;
      has_stopped_ = true;
      is_outcome_unknown_ = !outcome.code;
      return false;
    }
    for (Json::ArrayIndex i = 0; i < results.size(); ++i) HandleResult(batch_[i].label, json::Element(results, i));
    batch_.clear();
    batch_bytes_ = 0;
    return true;
  }

  void HandleResult(const std::string& label, const Json::Value& result) {
    if (!result.isObject()) return RecordFailure(label, MissingInReply("result of a guest").ToString(), Json::Value());
    const Json::Value* const error = json::FindMember(result, "error");
    if (error) {
      const std::string reason = Text(Member(*error, "reason"));
      return RecordFailure(label, reason.empty() ? Text(Member(*error, "message")) : reason, result);
    }
    ++done_;
    if (IsDryRun()) return RecordPlan(label, result);
    AddToOutput(label, result);
    if (global_.quiet || global_.json) return;
    ShowProgress("");
    const auto size = [&](const char* member) {
      return static_cast<std::size_t>(json::UInt64(Member(result, member)));
    };
    std::cout << fmt::format("{}: {} '{}' ({}): {}, {}\n", Printable(label),
                             IsTrue(Member(result, "replaced")) ? "replaced" : "imported",
                             Printable(Text(Member(result, "name"))), Printable(Text(Member(result, "guest_id"))),
                             Count(size("disks"), "disk"), Count(size("nics"), "network interface"));
    for (const Json::Value& note : json::Elements(Member(result, "notes"))) {
      std::cout << "  " << Printable(Text(note)) << '\n';
    }
    for (const Json::Value& element : json::Elements(Member(result, "elements"))) {
      std::cout << fmt::format("  {}: {}\n", Printable(Text(Member(element, "path"))),
                               Printable(Text(Member(element, "outcome"))));
    }
  }

  void RecordPlan(const std::string& label, const Json::Value& result) {
    planned_[Text(Member(result, "guest_id"))] = Text(Member(result, "name"));
    Json::Value records = Member(result, "records");
    if (records.isObject()) AddToOutput(label, records);
  }

  void AddToOutput(const std::string& label, const Json::Value& result) {
    Json::Value& added = output_.append(result);
    added["source"] = label;
  }

  // `result` is the server's answer for the guest, if there is one.
  void RecordFailure(const std::string& label, const std::string& reason, Json::Value result) {
    ++done_;
    ++failed_;
    ShowProgress("");
    std::cerr << Printable(label) << ": " << Printable(reason) << '\n';
    if (!global_.json || IsDryRun()) return;
    json::EnsureObject(json::EnsureObject(result)["error"])["reason"] = reason;
    AddToOutput(label, result);
  }

  ExitCode ReportStop() {
    PrintAll();
    if (done_ == 0 && !is_outcome_unknown_) return stop_exit_code_;
    std::cerr << fmt::format("vexa: Stopped after {} of {}", done_, Count(total_, "guest"));
    if (is_outcome_unknown_ && !IsDryRun()) {
      std::cerr << fmt::format("; the next {} may have been imported or not. See 'vexa guest list'", batch_.size());
    }
    std::cerr << '\n';
    return stop_exit_code_;
  }

  void PrintAll() {
    if (IsDryRun() || global_.json) {
      PrintJson(output_);
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
  std::vector<Pending> batch_;
  std::size_t batch_bytes_ = 0;
  std::size_t total_ = 0;
  std::size_t done_ = 0;  // guests with a result
  std::size_t failed_ = 0;
  bool has_stopped_ = false;
  bool is_outcome_unknown_ = false;  // of the last call
  ExitCode stop_exit_code_ = ExitCode::kFailed;
  bool has_progress_ = false;
  Json::Value planned_{Json::objectValue};  // names by id, in a dry run
  Json::Value output_{Json::arrayValue};    // what is printed as JSON at the end
};

}  // namespace

ExitCode RunImport(const GlobalOptions& global, const ImportArguments& arguments) {
  Result<ImportSources> sources = ImportSources::Open(arguments);
  if (!sources) {
    std::cerr << "vexa: " << Printable(sources.error().ToString()) << '\n';
    return ExitCode::kFailed;
  }
  Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  if (!global.timeout_s) connect->timeout = arguments.copies_disks ? kCopyTimeout : kCallTimeout;
  return Import(global, arguments, std::move(*connect)).Run(*sources);
}

}  // namespace vexa::cli
