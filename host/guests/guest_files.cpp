// Starts guests only with the files that were checked.
#include <fmt/format.h>
#include <syslog.h>

#include "host/base/sanitize_for_log.h"
#include "host/guests/guest_control_impl.h"

namespace vexa::guests {

using hypervisor::Failure;
using hypervisor::FailureKind;

namespace {

// The start of a log line about several files.
std::string FirstOf(const std::vector<std::string>& paths) {
  const std::string first = fmt::format("'{}'", SanitizePathForLog(paths.front()));
  return paths.size() == 1 ? first : fmt::format("{} and {} more", first, paths.size() - 1);
}

}  // namespace

Result<std::string, Failure> LibvirtGuestControl::XmlOfStart(const std::string& guest_id, bool is_saved) {
  // What a guest had when it was saved is in the XML beside its memory: media may have been changed while it ran.
  if (is_saved) {
    auto saved = hypervisor_->SavedXmlOf(guest_id);
    if (saved || saved.error().kind() != FailureKind::kUnsupported) return saved;
  }
  return hypervisor_->XmlOf(guest_id);
}

// Not set in test mode, where guests have no files.
Result<std::optional<CheckedFiles>, Refusal> LibvirtGuestControl::CheckFiles(const std::string& guest_id,
                                                                             const Result<std::string, Failure>& xml) {
  if (IsTestMode()) return std::optional<CheckedFiles>();
  if (!xml) return RefusalOf(xml.error());
  FileCheckOptions options;
  options.roots = options_.image_roots;
  options.if_unreadable = IsEmbedded() ? IfUnreadable::kRefuse : IfUnreadable::kAccept;
  auto files = CheckedFiles::Open(*xml, std::move(options));
  if (!files) return Refusal{host_error::kUnavailable, files.error().ToString()};
  if (!files->unreadable().empty()) {
    ::syslog(LOG_WARNING,
             "The guest %s is started with images that this service may not read, so it cannot check whether they name "
             "other files: %s",
             guest_id.c_str(), FirstOf(files->unreadable()).c_str());
  }
  return std::optional(std::move(*files));
}

std::optional<std::string> LibvirtGuestControl::CompareFiles(const std::string& guest_id, CheckedFiles& files) {
  const auto held = hypervisor_->FilesHeldBy(guest_id);  // by one or more processes
  if (!held) {
    // A guest that has ended by itself has no files.
    const auto state = hypervisor_->StateOf(guest_id);
    if (state && !IsActive(*state)) return std::nullopt;
    if (IsEmbedded()) return held.error().ToString();
    ::syslog(LOG_WARNING, "The files that the guest %s has open cannot be compared with the checked ones: %s",
             guest_id.c_str(), held.error().ToString().c_str());
    return std::nullopt;
  }
  if (const auto xml = hypervisor_->RunningXmlOf(guest_id)) files.AddFirmware(domain_xml::ParseFirmwareFiles(*xml));
  auto not_compared = files.Compare(held->front());
  for (std::size_t i = 1; !not_compared && i < held->size(); ++i) not_compared = files.Compare((*held)[i]);
  if (!not_compared) return not_compared.error().ToString();
  if (!not_compared->empty()) {
    ::syslog(LOG_WARNING,
             "The file system gives files of the guest %s another number each time they are opened, so only their "
             "paths were compared: %s",
             guest_id.c_str(), FirstOf(*not_compared).c_str());
  }
  return std::nullopt;
}

Refusal LibvirtGuestControl::EndForFiles(const std::string& guest_id, const std::string& reason) {
  const HypervisorStatus ended = hypervisor_->PowerOff(guest_id);
  if (ended || ended.error().kind() == FailureKind::kNotRunning) {
    ::syslog(LOG_ERR, "The guest %s was ended right after its start: %s", guest_id.c_str(), reason.c_str());
    return {host_error::kUnavailable, fmt::format("{}. The guest was ended", reason)};
  }
  const std::string why = ended.error().ToString();
  ::syslog(LOG_CRIT, "The guest %s could not be ended (%s), although it runs with files that were not checked: %s",
           guest_id.c_str(), why.c_str(), reason.c_str());
  return {host_error::kUnavailable, fmt::format("{}. The guest could not be ended: {}", reason, why)};
}

Result<void, Refusal> LibvirtGuestControl::ResumeRestored(const std::string& guest_id, CheckedFiles& files) {
  if (const auto difference = CompareFiles(guest_id, files)) return SaveAgain(guest_id, *difference);
  const HypervisorStatus resumed = hypervisor_->Resume(guest_id);
  if (resumed) return {};
  if (resumed.error().kind() == FailureKind::kNotRunning) return RefusalOf(resumed.error());
  return SaveAgain(guest_id, resumed.error().ToString());
}

// libvirt has removed the file with the memory, so the guest must not be ended without saving it.
Refusal LibvirtGuestControl::SaveAgain(const std::string& guest_id, const std::string& reason) {
  const HypervisorStatus saved = hypervisor_->Save(guest_id);
  if (saved) {
    ::syslog(LOG_ERR, "The guest %s was saved again right after it was restored, before it ran: %s", guest_id.c_str(),
             reason.c_str());
    return {host_error::kUnavailable, fmt::format("{}. The guest's memory was saved again", reason)};
  }
  const std::string why = saved.error().ToString();
  ::syslog(LOG_CRIT, "The guest %s stays paused, because its memory could not be saved again (%s): %s",
           guest_id.c_str(), why.c_str(), reason.c_str());
  return {host_error::kUnavailable,
          fmt::format("{}. The guest stays paused, because its memory could not be saved again: {}", reason, why)};
}

// Until it has run, only FinishRestore decides about a guest that is paused.
bool LibvirtGuestControl::IsBeingRestored(const std::string& guest_id, const records::Run& run) const {
  return run.host_id == options_.host_id && run.starting && run.restoring && !IsTestMode() &&
         !end_reasons_.HasRun(guest_id);
}

Result<void, Refusal> LibvirtGuestControl::FinishRestore(const std::string& guest_id) {
  const auto stored = records::ReadRun(*options_.store, guest_id);
  if (!stored) return RefusalOf(stored.error());
  if (!*stored || !IsBeingRestored(guest_id, (*stored)->run)) return {};
  const auto state = hypervisor_->StateOf(guest_id);
  if (!state) return RefusalOf(state.error());
  if (*state != hypervisor::GuestState::kPaused) return {};
  // While the database is lost, the record may be old, and another host may run the guest: only a commit shows that
  // none does. The reconciliation that follows reports why it failed.
  if (const Status put = PutRun(guest_id, *stored, (*stored)->run); !put) return RefusalOf(put.error());
  auto files = CheckFiles(guest_id, hypervisor_->RunningXmlOf(guest_id));
  if (!files.ok()) return SaveAgain(guest_id, files.error().reason);
  return *files ? ResumeRestored(guest_id, **files) : Result<void, Refusal>();
}

}  // namespace vexa::guests
