// What is fixed, in one place for the module and tavbt. Not for users of the class.
#pragma once

namespace tav_c_api_impl::bluetooth_constants {

// RFCOMM channels of the two message formats; the built-in server listens on that of the named one.
constexpr unsigned char CLASSIC_CHANNEL = 1;
constexpr unsigned char NAMED_CHANNEL = 16;

// The first byte of a named message.
constexpr unsigned char TYPE_TEXT = 0x01;
constexpr unsigned char TYPE_BOOL = 0x03;
constexpr unsigned char TYPE_DATA = 0x04;

// In a classic message: system command without reply, write mailbox.
constexpr const char* WRITE_MAILBOX = "\x81\x9E";

// The largest maxSize with which a reader receives into its fixed buffer, and logs what it sees.
constexpr unsigned int FIXED_TEXT_LIMIT = 839;
constexpr unsigned int FIXED_DATA_LIMIT = 835;
constexpr unsigned int FIXED_CLASSIC_TEXT_LIMIT = 950;

// How long a message operation waits for the connection that it makes.
constexpr unsigned long CONNECT_TIMEOUT_MS = 20000;

constexpr int INQUIRY_LENGTH = 8;  // x 1.28 s

// The device list file, memory card first. A record of it: name, NUL | 1C | address text, NUL | 1A. Nothing stands
// before, between or behind records.
// Robot2: 52 6F 62 6F 74 32 00 | 1C | 31 32 3A 33 34 3A 35 36 3A 37 38 3A 39 41 3A 42 43 00 | 1A
constexpr const char* DEVICE_FOLDERS[] = {"../prjs/SD_Card/", "../prjs/"};
constexpr const char* DEVICE_FILE = "__BTScan__";
constexpr char FIELD_SEPARATOR = 0x1C;
constexpr char RECORD_END = 0x1A;

}  // namespace tav_c_api_impl::bluetooth_constants
