// Starts guests only with the files that were checked.
#include <fmt/format.h>
#include <syslog.h>

#include "host/base/sanitize_for_log.h"
#include "host/guests/guest_control_impl.h"

namespace vexa::guests {

using hypervisor::FailureKind;

namespace {

void LogOnce(std::atomic<bool>& is_logged, const std::string& sentence) {
  if (!is_logged.exchange(true)) ::syslog(LOG_WARNING, "%s", sentence.c_str());
}

}  // namespace

// Not set in test mode, where guests have no files.
Result<std::optional<CheckedFiles>, Refusal> LibvirtGuestControl::CheckFiles(const std::string& guest_id) {
  if (IsTestMode()) return std::optional<CheckedFiles>();
  // libvirt's own form of the definition, which is also that of a guest with saved memory.
  const auto xml = hypervisor_->XmlOf(guest_id);
  if (!xml) return RefusalOf(xml.error());
  FileCheckOptions options;
  options.roots = options_.image_roots;
  options.if_unreadable = IsEmbedded() ? IfUnreadable::kRefuse : IfUnreadable::kAccept;
  auto files = CheckedFiles::Open(*xml, std::move(options));
  if (!files) return Refusal{host_error::kUnavailable, files.error().ToString()};
  for (const std::string& path : files->unreadable()) {
    LogOnce(has_logged_unreadable_, fmt::format("This service may not read the image '{}', so it cannot check whether "
                                                "it names other files. More such images are not logged.",
                                                SanitizePathForLog(path)));
  }
  return std::optional(std::move(*files));
}

Result<void, Refusal> LibvirtGuestControl::CompareFiles(const std::string& guest_id, CheckedFiles& files) {
  const auto held = hypervisor_->FilesHeldBy(guest_id);  // by one or more processes
  if (!held && !IsEmbedded()) {
    LogOnce(has_logged_uncompared_,
            fmt::format("The files that guests have open cannot be compared with the checked ones. More such "
                        "guests are not logged. {}",
                        held.error().ToString()));
    return {};
  }
  if (!held) {
    // A guest that has ended by itself has no files.
    const auto state = hypervisor_->StateOf(guest_id);
    if (state && !IsActive(*state)) return {};
    return EndForFiles(guest_id, held.error().ToString());
  }
  if (const auto xml = hypervisor_->RunningXmlOf(guest_id)) files.AddFirmware(domain_xml::ParseFirmwareFiles(*xml));
  auto not_compared = files.Compare(held->front());
  for (std::size_t i = 1; !not_compared && i < held->size(); ++i) not_compared = files.Compare((*held)[i]);
  if (!not_compared) return EndForFiles(guest_id, not_compared.error().ToString());
  for (const std::string& path : *not_compared) {
    LogOnce(has_logged_unstable_, fmt::format("The file system of '{}' gives files another number each time they are "
                                              "opened, so only their paths were compared. More such files are not "
                                              "logged.",
                                              SanitizePathForLog(path)));
  }
  return {};
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

}  // namespace vexa::guests
