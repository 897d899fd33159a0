#include "stream_error_box.h"

#include "base/log.h"

#include <obs-module.h>

#include <QCoreApplication>
#include <QMessageBox>
#include <QMetaObject>
#include <QString>

namespace cv {

const char *const kStreamErrorTitle = "Vertical Canvas — Stream Error";
const char *const kRecordingErrorTitle = "Vertical Canvas — Recording Error";

void post_error_box(const char *title, const std::string &message)
{
	QCoreApplication *app = QCoreApplication::instance();
	if (!app) {
		log_error("%s: %s", title, message.c_str());
		return;
	}
	const QString text = QString::fromUtf8(message.c_str());
	const QString caption = QString::fromUtf8(title);
	QMetaObject::invokeMethod(
		app, [text, caption]() { QMessageBox::critical(nullptr, caption, text, QMessageBox::Ok); },
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
