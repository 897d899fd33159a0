#include "errors.h"

#include <cstring>

namespace cv {

namespace {

struct Known {
	ErrorCode code;
	const char *name;
	const char *key;
	const char *english; // "%1": the detail
};

// The English words are the locale file's English texts; unit.locale holds the two alike.
const Known kKnown[] = {
	{ErrorCode::NoCanvas, "NoCanvas", "Error.NoCanvas",
	 "There is no vertical canvas: the profile's canvas settings cannot be used"},
	{ErrorCode::NoDestinationOn, "NoDestinationOn", "Error.NoDestinationOn", "No destination is switched on"},
	{ErrorCode::NoSuchDestination, "NoSuchDestination", "Error.NoSuchDestination",
	 "No destination is named \"%1\""},
	{ErrorCode::NoScenes, "NoScenes", "Error.NoScenes", "There are no vertical scenes"},
	{ErrorCode::NoSuchScene, "NoSuchScene", "Error.NoSuchScene", "No vertical scene is named \"%1\""},
	{ErrorCode::SceneNameEmpty, "SceneNameEmpty", "Error.SceneNameEmpty", "A scene name cannot be empty"},
	{ErrorCode::SceneExists, "SceneExists", "Error.SceneExists", "A scene named \"%1\" already exists"},
	{ErrorCode::NoSuchHostScene, "NoSuchHostScene", "Error.NoSuchHostScene", "No OBS scene is named \"%1\""},
	{ErrorCode::MissingField, "MissingField", "Error.MissingField", "Missing field \"%1\""},
	{ErrorCode::FieldNotString, "FieldNotString", "Error.FieldNotString", "Field \"%1\" must be a string"},
	{ErrorCode::FieldNotNumber, "FieldNotNumber", "Error.FieldNotNumber", "Field \"%1\" must be a number"},
	{ErrorCode::FieldNotBool, "FieldNotBool", "Error.FieldNotBool", "Field \"%1\" must be true or false"},
	{ErrorCode::FieldNotObject, "FieldNotObject", "Error.FieldNotObject", "Field \"%1\" must be an object"},
	{ErrorCode::OutOfRange, "OutOfRange", "Error.OutOfRange", "Out of range: %1"},
	{ErrorCode::NoSuchLayout, "NoSuchLayout", "Error.NoSuchLayout",
	 "No layout is named \"%1\": use cover, fit or stack"},
	{ErrorCode::BadColour, "BadColour", "Error.BadColour",
	 "\"%1\" is not a background: use blur or a colour #RRGGBB"},
	{ErrorCode::RegionOutsideScene, "RegionOutsideScene", "Error.RegionOutsideScene",
	 "The %1 region must lie inside the OBS scene and have an area"},
	{ErrorCode::NoSuchTransition, "NoSuchTransition", "Error.NoSuchTransition",
	 "OBS has no transition type \"%1\""},
	{ErrorCode::NotLoaded, "NotLoaded", "Error.NotLoaded", "Corvane Vertical Canvas is not loaded"},
	{ErrorCode::ProfileSwitching, "ProfileSwitching", "Error.ProfileSwitching",
	 "The vertical canvas is still changing to the new profile; try again in a moment"},
	{ErrorCode::RequestTimeout, "RequestTimeout", "Error.RequestTimeout",
	 "OBS did not take the request within 5 s; it may still be carried out"},
	{ErrorCode::UrlEmpty, "UrlEmpty", "Error.UrlEmpty", "RTMP URL is empty"},
	{ErrorCode::KeyEmpty, "KeyEmpty", "Error.KeyEmpty", "The stream key is empty"},
	{ErrorCode::UrlUnusable, "UrlUnusable", "Error.UrlUnusable", "The server URL cannot be used: %1"},
	{ErrorCode::NoSuchService, "NoSuchService", "Error.NoSuchService", "OBS does not list the service \"%1\""},
	{ErrorCode::Rejected, "Rejected", "Error.Rejected", "Stream rejected — check server URL and stream key"},
	{ErrorCode::NoAnswer, "NoAnswer", "Error.NoAnswer",
	 "The server did not answer within 10 s — check the server URL"},
	{ErrorCode::ConnectFailed, "ConnectFailed", "Error.ConnectFailed",
	 "Vertical output failed to connect.\nCheck your RTMP URL and stream key."},
	{ErrorCode::Certificate, "Certificate", "Error.Certificate",
	 "The server's certificate cannot be trusted: %1. Nothing was sent."},
	{ErrorCode::NoOutput, "NoOutput", "Error.NoOutput", "the host could not create the output"},
	{ErrorCode::NoEncoder, "NoEncoder", "Error.NoEncoder", "no encoder could start"},
	{ErrorCode::EncoderStopped, "EncoderStopped", "Error.EncoderStopped",
	 "The video encoder stopped with an error"},
	{ErrorCode::NoRecordingFolder, "NoRecordingFolder", "Error.NoRecordingFolder",
	 "The recording folder \"%1\" does not exist. Choose one in the host's output settings."},
	{ErrorCode::NoFileMuxer, "NoFileMuxer", "Error.NoFileMuxer", "The host's file muxer output is not available."},
	{ErrorCode::RecordingNotStarted, "RecordingNotStarted", "Error.RecordingNotStarted",
	 "The vertical recording could not start: %1\nCheck that the recording folder can be written."},
	{ErrorCode::RecordingStopped, "RecordingStopped", "Error.RecordingStopped",
	 "The vertical recording stopped: %1\nIs the disk full? The vertical stream is not affected."},
	{ErrorCode::RecordingCannotPause, "RecordingCannotPause", "Error.RecordingCannotPause",
	 "The vertical recording cannot pause while the vertical stream shares its encoder; it goes on."},
	{ErrorCode::FileNotWritten, "FileNotWritten", "Error.FileNotWritten", "the file could not be written"},
	{ErrorCode::ReplayNotRunning, "ReplayNotRunning", "Error.ReplayNotRunning",
	 "The vertical replay buffer is not running: start it before saving a replay."},
	{ErrorCode::ReplayNotStarted, "ReplayNotStarted", "Error.ReplayNotStarted",
	 "The vertical replay buffer could not start: %1"},
	{ErrorCode::ReplayStopped, "ReplayStopped", "Error.ReplayStopped",
	 "The vertical replay buffer stopped: %1\nThe vertical stream is not affected."},
	{ErrorCode::HostVideoUnapplied, "HostVideoUnapplied", "Error.HostVideoUnapplied",
	 "OBS could not apply its new video settings while the vertical stream or recording runs. They are applied "
	 "as soon as both have stopped."},
};

const Known *find(ErrorCode code)
{
	for (const Known &known : kKnown)
		if (known.code == code)
			return &known;
	return nullptr;
}

} // namespace

const char *error_name(ErrorCode code)
{
	const Known *known = find(code);
	return known ? known->name : "";
}

const char *error_key(ErrorCode code)
{
	const Known *known = find(code);
	return known ? known->key : "";
}

std::string english(const Error &error)
{
	const Known *known = find(error.code);
	if (!known)
		return {};
	std::string text = known->english;
	if (const size_t hole = text.find("%1"); hole != std::string::npos)
		text.replace(hole, 2, error.detail);
	return text;
}

} // namespace cv
