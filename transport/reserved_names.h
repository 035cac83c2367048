// The words of the message envelope: reserved keys, reserved method names, the version text.
// They are wire format; none of them may change.
#pragma once

#include <string_view>

namespace tolk {

inline constexpr char kVersionText[] = "Tolk Version: 1.1.0.12";

// Envelope keys.
inline constexpr char kKeyName[] = "s_c_sw_name";
inline constexpr char kKeyCallId[] = "s_c_sw_threadid";
inline constexpr char kKeyArguments[] = "s_c_sw_data";
inline constexpr char kKeyToken[] = "s_c_sw_semid";
inline constexpr char kKeyVersion[] = "VERSION";
inline constexpr char kKeyLargeData[] = "s_c_largedata";

// Reserved method names.
inline constexpr char kReply[] = "retval";
inline constexpr char kMethodVersion[] = "s_c_version";
inline constexpr char kMethodCloseServer[] = "s_c_close_server";
inline constexpr char kMethodPieceHeader[] = "s_c_req_header";
inline constexpr char kMethodPieceBody[] = "s_c_req_body";
inline constexpr char kMethodLargeData[] = "s_c_largedata";

// Local hooks: looked up in a side's own method table, never sent.
inline constexpr char kHookConnect[] = "s_c_connect";
inline constexpr char kHookClosed[] = "s_c_closed";
inline constexpr char kHookBuiltinClosed[] = "s_c_buildin_closed";
inline constexpr char kHookCreatePort[] = "s_c_createport";
inline constexpr char kHookLog[] = "s_c_log";

}  // namespace tolk
