#pragma once

// Why something the plug-in was asked to do did not happen, or why a stream or recording
// stopped: a code, with the one piece of text it may need (a name, a folder, an encoder
// or the host's own words). Codes travel; words are made where they are shown: English
// for the log and websocket clients, the user's language in the dock and notices.

#include <string>
#include <utility>

namespace cv {

enum class ErrorCode {
	None,
	// Commands.
	NoCanvas,
	NoDestinationOn,
	NoSuchDestination, // detail: the name asked for
	NoScenes,
	NoSuchScene, // detail: the name asked for
	SceneNameEmpty,
	SceneExists,        // detail: the name
	NoSuchHostScene,    // detail: the name asked for
	MissingField,       // detail: the field
	FieldNotString,     // detail: the field
	FieldNotNumber,     // detail: the field
	FieldNotBool,       // detail: the field
	FieldNotObject,     // detail: the field
	OutOfRange,         // detail: the field and its range
	NoSuchLayout,       // detail: the name asked for
	BadColour,          // detail: the text given
	RegionOutsideScene, // detail: which region
	NoSuchTransition,   // detail: the id asked for
	NotLoaded,
	RequestTimeout,
	ProfileSwitching,
	// Destinations.
	UrlEmpty,
	KeyEmpty,
	UrlUnusable,   // detail: what is wrong with the address
	NoSuchService, // detail: the service
	Rejected,
	NoAnswer,
	ConnectFailed,
	Certificate, // detail: what is wrong with the certificate
	NoOutput,
	NoEncoder,
	EncoderStopped,
	// The recording.
	NoRecordingFolder, // detail: the folder
	NoFileMuxer,
	RecordingNotStarted, // detail: why
	RecordingStopped,    // detail: why
	RecordingCannotPause,
	FileNotWritten,
	// The replay buffer.
	ReplayNotRunning,
	ReplayNotStarted, // detail: why
	ReplayStopped,    // detail: why
	// The host.
	HostVideoUnapplied,
};

struct Error {
	ErrorCode code = ErrorCode::None;
	std::string detail;

	Error() = default;
	Error(ErrorCode error_code, std::string error_detail = {}) // NOLINT: a code is an error
		: code(error_code),
		  detail(std::move(error_detail))
	{
	}
	explicit operator bool() const { return code != ErrorCode::None; }
	bool operator==(const Error &other) const { return code == other.code && detail == other.detail; }
	bool operator!=(const Error &other) const { return !(*this == other); }
};

// The code's name for websocket clients ("NoSuchScene"), its text key in the plug-in's
// locale files ("Error.NoSuchScene", with "%1" for the detail), and its English words
// with the detail put in. Empty for None.
const char *error_name(ErrorCode code);
const char *error_key(ErrorCode code);
std::string english(const Error &error);

} // namespace cv
