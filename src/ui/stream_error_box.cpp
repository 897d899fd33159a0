#include "stream_error_box.h"

#include "core/plugin_log.h"

#include <obs-module.h>

#include <QCoreApplication>
#include <QMessageBox>
#include <QMetaObject>
#include <QString>

namespace cv {

const char *const kStreamErrorTitle = "Vertical Canvas \xC3\xA2\xE2\x82\xAC\xE2\x80\x9D Stream Error";

void post_stream_error_box(const std::string &message)
{
	QCoreApplication *app = QCoreApplication::instance();
	if (!app) {
		blog(LOG_ERROR, "[%s] Vertical stream error: %s", kLogTag, message.c_str());
		return;
	}
	const QString text = QString::fromUtf8(message.c_str());
	QMetaObject::invokeMethod(
		app,
		[text]() {
			QMessageBox::critical(nullptr, QString::fromUtf8(kStreamErrorTitle), text, QMessageBox::Ok);
		},
		Qt::QueuedConnection);
}

} // namespace cv
