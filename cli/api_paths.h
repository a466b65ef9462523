// Paths of methods that several commands call.
#pragma once

namespace vexa::cli {

inline constexpr const char* kGuestGet = "/webapi/VEXA.Virtualization.Guest/get";
inline constexpr const char* kGuestList = "/webapi/VEXA.Virtualization.Guest/list";
inline constexpr const char* kGuestStatus = "/webapi/VEXA.Virtualization.Guest/status";
inline constexpr const char* kHostGet = "/webapi/VEXA.Virtualization.Host/get";
inline constexpr const char* kHostList = "/webapi/VEXA.Virtualization.Host/list";
inline constexpr const char* kImageList = "/webapi/VEXA.Virtualization.Image/list";
inline constexpr const char* kLogList = "/webapi/VEXA.Virtualization.Log/list";
inline constexpr const char* kNetworkList = "/webapi/VEXA.Virtualization.Network/list";
inline constexpr const char* kRepositoryList = "/webapi/VEXA.Virtualization.Repository/list";
inline constexpr const char* kUploadList = "/webapi/VEXA.Virtualization.Image/upload_list";

}  // namespace vexa::cli
