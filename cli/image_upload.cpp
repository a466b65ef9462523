#include "cli/image_upload.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <optional>
#include <thread>
#include <utility>

#include "cli/listing.h"
#include "cli/object_names.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/byte_text.h"
#include "host/base/descriptor.h"
#include "host/base/sha256.h"
#include "host/records/named_record.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

constexpr const char* kBegin = "/webapi/VEXA.Virtualization.Image/upload_begin";
constexpr const char* kStatus = "/webapi/VEXA.Virtualization.Image/upload_status";
constexpr const char* kEnd = "/webapi/VEXA.Virtualization.Image/upload_end";
constexpr const char* kCancel = "/webapi/VEXA.Virtualization.Image/upload_cancel";
constexpr const char* kPut = "/upload/";

// The server takes larger ones, but at most 8 MiB of one user at a time: other uploads and calls of the user have room.
constexpr std::size_t kLargestPiece = std::size_t{2} << 20;
constexpr std::size_t kFirstPiece = std::size_t{1} << 20;
constexpr std::size_t kSmallestPiece = std::size_t{64} << 10;
// A piece that takes longer is not followed by a larger one: the server waits half a minute for a piece.
constexpr auto kQuickPiece = std::chrono::seconds(3);
constexpr int kMaxTries = 30;
constexpr auto kRetryPause = std::chrono::seconds(1);
// The server reads the whole file before it answers.
constexpr int kEndTimeoutS = 3600;

// A file of this machine.
class LocalFile {
 public:
  static Result<LocalFile> Open(const std::string& path) {
    LocalFile file;
    file.path_ = path;
    file.file_ = Descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (file.file_.get() < 0 || ::fstat(file.file_.get(), &info) != 0) return file.Failed(errno);
    if (!S_ISREG(info.st_mode)) return Error(ErrorCode::kInvalid, fmt::format("'{}' is not a regular file", path));
    if (info.st_size == 0) return Error(ErrorCode::kInvalid, fmt::format("'{}' is empty", path));
    file.size_ = static_cast<std::uint64_t>(info.st_size);
    return file;
  }

  std::uint64_t size() const { return size_; }

  // Exactly `count` bytes.
  Result<std::string> Read(std::uint64_t offset, std::size_t count) const {
    std::string bytes(count, '\0');
    for (std::size_t done = 0; done < count;) {
      const ssize_t more = ::pread(file_.get(), bytes.data() + done, count - done, static_cast<off_t>(offset + done));
      if (more < 0 && errno == EINTR) continue;
      if (more < 0) return Failed(errno);
      if (more == 0) return Error(ErrorCode::kConflict, fmt::format("'{}' has become shorter", path_));
      done += static_cast<std::size_t>(more);
    }
    return bytes;
  }

 private:
  Error Failed(int error_number) const {
    return SystemError(ErrorCode::kInternal, fmt::format("Cannot read '{}'", path_), error_number);
  }

  std::string path_;
  Descriptor file_;
  std::uint64_t size_ = 0;
};

HttpClientOptions WithEndTimeout(const GlobalOptions& global, HttpClientOptions options) {
  if (!global.timeout_s) options.timeout = std::chrono::seconds(kEndTimeoutS);
  return options;
}

class Upload {
 public:
  Upload(const GlobalOptions& global, const ImageUpload& upload, LocalFile file, const HttpClientOptions& connect)
      : global_(global),
        upload_(upload),
        file_(std::move(file)),
        client_(connect),
        end_client_(WithEndTimeout(global, connect)) {}

  ExitCode Run() {
    const Result<std::string> digest = ComputeDigest();
    if (!digest) return Stop(Report(digest.error()));
    if (const ExitCode begun = Begin(*digest); begun != ExitCode::kOk) return Stop(begun);
    while (received_ < file_.size()) {
      ShowProgress("sent", received_);
      if (const ExitCode sent = SendPiece(); sent != ExitCode::kOk) return Stop(sent);
    }
    ShowProgress("sent", received_);
    return End();
  }

 private:
  Result<std::string> ComputeDigest() {
    Sha256 sha256;
    for (std::uint64_t offset = 0; offset < file_.size();) {
      ShowProgress("read", offset);
      const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(kLargestPiece, file_.size() - offset));
      const Result<std::string> bytes = file_.Read(offset, count);
      if (!bytes) return bytes.error();
      sha256.Add(*bytes);
      offset += count;
    }
    std::optional<std::string> digest = sha256.Digest();
    if (!digest) return Error(ErrorCode::kInternal, "The SHA-256 of the file cannot be computed");
    return *std::move(digest);
  }

  ExitCode Begin(const std::string& digest) {
    Json::Value parameters(Json::objectValue);
    parameters["name"] = upload_.name;
    parameters["size"] = Json::UInt64{file_.size()};
    parameters["sha256"] = digest;
    if (!upload_.folder.empty()) parameters["folder"] = upload_.folder;
    ClearProgress();
    const CallOutcome begun = CallApi(client_, kBegin, RenderJson(parameters, JsonLayout::kOneLine));
    if (begun.exit_code != ExitCode::kOk) return begun.exit_code;
    id_ = Text(Member(begun.data, "upload_id"));
    if (id_.empty() || !SetReceived(begun.data)) return Report(MissingInReply("upload_id"));
    has_begun_ = true;
    return ExitCode::kOk;
  }

  std::string IdParameter() const { return ParameterJson("upload_id", id_); }

  bool SetReceived(const Json::Value& data) {
    const Json::Value& received = Member(data, "received");
    if (!received.isUInt64() || json::UInt64(received) > file_.size()) return false;
    received_ = json::UInt64(received);
    return true;
  }

  ExitCode SendPiece() {
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(piece_, file_.size() - received_));
    const Result<std::string> bytes = file_.Read(received_, count);
    if (!bytes) return Report(bytes.error());
    const auto begin = std::chrono::steady_clock::now();
    const CallOutcome sent = TryPut(
        client_, kPut + id_, fmt::format("bytes {}-{}/{}", received_, received_ + count - 1, file_.size()), *bytes);
    const std::uint64_t before = received_;
    if (sent.exit_code == ExitCode::kOk) {
      if (!SetReceived(sent.data) || received_ <= before) return Report(MissingInReply("received"));
      tries_ = 0;
      const bool is_quick = std::chrono::steady_clock::now() - begin < kQuickPiece;
      if (is_quick) piece_ = std::min(piece_ * 2, kLargestPiece);
      return ExitCode::kOk;
    }
    piece_ = std::max(piece_ / 2, kSmallestPiece);
    const bool continues_elsewhere = sent.code == user_error::kUploadOffset && SetReceived(sent.details);
    if ((!continues_elsewhere && !IsTemporary(sent)) || ++tries_ >= kMaxTries) return Fail(sent);
    if (continues_elsewhere) return ExitCode::kOk;
    std::this_thread::sleep_for(kRetryPause);
    const CallOutcome status = TryApi(client_, kStatus, IdParameter());
    if (status.exit_code == ExitCode::kOk) (void)SetReceived(status.data);
    return status.exit_code == ExitCode::kOk || IsTemporary(status) ? ExitCode::kOk : Fail(status);
  }

  ExitCode End() {
    CallOutcome ended = TryApi(end_client_, kEnd, IdParameter());
    for (tries_ = 1; IsTemporary(ended) && tries_ < kMaxTries; ++tries_) {
      std::this_thread::sleep_for(kRetryPause);
      ended = TryApi(end_client_, kEnd, IdParameter());
    }
    if (ended.code == user_error::kUploadDamaged) has_begun_ = false;  // the server has removed it
    if (ended.exit_code != ExitCode::kOk) return Stop(Fail(ended));
    ClearProgress();
    if (global_.json) return PrintJson(ended.data);
    std::cout << Printable(Text(Member(ended.data, "image_id"))) << '\n';
    return ExitCode::kOk;
  }

  ExitCode Fail(const CallOutcome& outcome) {
    ClearProgress();
    std::cerr << "vexa: " << outcome.failure << '\n';
    return outcome.exit_code;
  }

  ExitCode Stop(ExitCode code) {
    ClearProgress();
    if (has_begun_) std::cerr << "vexa: Run the same command again to continue the upload.\n";
    return code;
  }

  // On a terminal, the line of the progress is written again and again.
  void ShowProgress(const char* what, std::uint64_t done) {
    if (global_.quiet || ::isatty(STDERR_FILENO) == 0) return;
    const auto percent = static_cast<int>(static_cast<double>(done) * 100 / static_cast<double>(file_.size()));
    std::cerr << "\r\x1b[K" << fmt::format("{} {} of {} ({} %)", what, ByteText(done), ByteText(file_.size()), percent)
              << std::flush;
    has_progress_ = true;
  }
  void ClearProgress() {
    if (std::exchange(has_progress_, false)) std::cerr << "\r\x1b[K" << std::flush;
  }

  const GlobalOptions& global_;
  const ImageUpload& upload_;
  const LocalFile file_;
  HttpClient client_;
  HttpClient end_client_;
  std::string id_;
  std::uint64_t received_ = 0;
  std::size_t piece_ = kFirstPiece;
  int tries_ = 0;           // since a piece was taken
  bool has_begun_ = false;  // the server has an upload that can be continued
  bool has_progress_ = false;
};

}  // namespace

ExitCode RunImageUpload(const GlobalOptions& global, const ImageUpload& upload) {
  if (!records::IsRecordName(upload.name)) {
    return Report(Error(ErrorCode::kInvalid, "An image's name is 1 to 128 bytes of UTF-8 without control characters"));
  }
  Result<LocalFile> file = LocalFile::Open(upload.file);
  if (!file) return Report(file.error());
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  return Upload(global, upload, *std::move(file), *connect).Run();
}

ExitCode RunUploadList(const GlobalOptions& global) {
  const CallOutcome outcome = ListObjects(global, kUploads);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& uploads = Member(outcome.data, kUploads.plural);
  if (global.json) return PrintJson(uploads);
  Table table{{"NAME", "HOST", "USER", "RECEIVED", "BYTES"}, {}};
  if (global.ids) table.header.insert(table.header.begin(), "UPLOAD");
  ObjectNames names(global);
  for (const Json::Value& upload : uploads) {
    const Json::Value& received = Member(upload, "received");
    table.rows.push_back({Text(Member(upload, kUploads.name)), names.Of(kHosts, Text(Member(upload, "host_id"))),
                          Text(Member(upload, "user")), received.isNull() ? "-" : Text(received),
                          Text(Member(upload, "size"))});
    if (global.ids) table.rows.back().insert(table.rows.back().begin(), Text(Member(upload, kUploads.id)));
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

ExitCode RunUploadCancel(const GlobalOptions& global, const std::string& upload) {
  std::string id;
  const ExitCode cancelled = CallForObject(global, kUploads, kCancel, upload, id);
  if (cancelled != ExitCode::kOk) return cancelled;
  return PrintConfirmation(global, fmt::format("Cancelled the upload '{}'.", Printable(upload)));
}

}  // namespace vexa::cli
