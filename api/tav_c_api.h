/// @file
/// What the Bluetooth module requires of the surrounding programming interface.
///
/// The module only declares these four; whoever links it defines them. A brick's firmware brings its own definitions, a
/// stand-alone program links the default ones of host/, or the library `tav-bluetooth-host` with them. Those log to the
/// file that `TAV_LOG` names, or to stderr if that is `-` or empty or the file does not open, and take the name from
/// `TAV_BRICK_NAME`, else from the adapter, else from the host.
/// @man{tav_api}
#pragma once

#include <string>

/// The debug log.
namespace tav_c_api {

/// True while debug logging is on. The module reads it in one place only, to spare itself the hexadecimal dump of
/// received messages; every other line is handed to WriteLog_Dbg() whatever this says.
extern bool g_isLog_Quorvant_TAV;

/// Writes one line to the debug log, printf-style. The texts carry no line break of their own, except the hexadecimal
/// dump. Called by the user program's thread and by the accept thread, so it must be thread-safe, and it must not
/// throw.
void WriteLog_Dbg(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tav_c_api

namespace tav_c_api_impl {

/// Fills in this brick's own name, the name that other bricks know it by. Called once for every named message that is
/// sent.
/// @return False when no name is available; the message is then not sent.
bool Get_TAVBrickName(std::string& name);

/// Removes the file at `path` if there is one.
/// @return Ignored by the module.
bool DeleteFile(const std::string& path);

}  // namespace tav_c_api_impl
