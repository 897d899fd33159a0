#include "stream_error_box.h"

#include "texts.h"

#include "base/log.h"

#include <QCoreApplication>
#include <QMessageBox>
#include <QMetaObject>

#include <optional>

namespace cv {

const char *const kStreamErrorTitle = "Vertical Canvas — Stream Error";
const char *const kRecordingErrorTitle = "Vertical Canvas — Recording Error";

namespace {

// The English texts of the stream engine, the output and the recording, written out here
// as they write them (unit.locale finds each in their code), with their keys; a "%1" stands
// for any text, itself looked up again.
struct KnownText {
	const char *english;
	const char *key;
};
const KnownText kKnownTexts[] = {
	{kStreamErrorTitle, "Error.StreamTitle"},
	{kRecordingErrorTitle, "Error.RecordingTitle"},
	{"Stream rejected — check server URL and stream key", "Error.Rejected"},
	{"The server did not answer within 10 s — check the server URL", "Error.NoAnswer"},
	{"RTMP/SRT disconnected, reconnecting...", "Error.Reconnecting"},
	{"Vertical output failed to connect.\nCheck your RTMP URL and stream key.", "Error.ConnectFailed"},
	{"RTMP URL is empty", "Error.UrlEmpty"},
	{"no encoder could start", "Error.NoEncoder"},
	{"the host could not create the output", "Error.NoOutput"},
	{"The recording folder \"%1\" does not exist. Choose one in the host's output settings.",
	 "Error.NoRecordingFolder"},
	{"The host's file muxer output is not available.", "Error.NoFileMuxer"},
	{"The vertical recording could not start: %1\nCheck that the recording folder can be written.",
	 "Error.RecordingNotStarted"},
	{"The vertical recording stopped: %1\nIs the disk full? The vertical stream is not affected.",
	 "Error.RecordingStopped"},
	{"the file could not be written", "Error.FileNotWritten"},
};

std::optional<QString> known_text(const QString &message)
{
	for (const KnownText &known : kKnownTexts) {
		const QString english = QString::fromUtf8(known.english);
		const int hole = english.indexOf("%1");
		if (hole < 0) {
			if (message == english)
				return text(known.key);
			continue;
		}
		const QString before = english.left(hole);
		const QString after = english.mid(hole + 2);
		if (message.size() >= before.size() + after.size() && message.startsWith(before) &&
		    message.endsWith(after)) {
			const QString value = message.mid(before.size(), message.size() - before.size() - after.size());
			return text(known.key).arg(known_text(value).value_or(value));
		}
	}
	return std::nullopt;
}

} // namespace

QString engine_text(const std::string &message)
{
	const QString whole = QString::fromUtf8(message.c_str(), int(message.size()));
	if (std::optional<QString> known = known_text(whole))
		return *known;
	// "<destination>: <message>"; the name may hold ": " itself.
	for (int at = whole.indexOf(": "); at >= 0; at = whole.indexOf(": ", at + 1)) {
		if (std::optional<QString> known = known_text(whole.mid(at + 2)))
			return whole.left(at + 2) + *known;
	}
	return whole;
}

void post_error_box(const char *title, const std::string &message)
{
	QCoreApplication *app = QCoreApplication::instance();
	if (!app) {
		log_error("%s: %s", title, message.c_str());
		return;
	}
	const QString body = engine_text(message);
	const QString caption = engine_text(title);
	QMetaObject::invokeMethod(
		app, [body, caption]() { QMessageBox::critical(nullptr, caption, body, QMessageBox::Ok); },
		Qt::QueuedConnection);
}

void post_stream_error_box(const std::string &message)
{
	post_error_box(kStreamErrorTitle, message);
}

void post_recording_error_box(const std::string &message)
{
	post_error_box(kRecordingErrorTitle, message);
}

} // namespace cv
