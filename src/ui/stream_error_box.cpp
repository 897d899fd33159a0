#include "stream_error_box.h"

#include "base/log.h"

#include <obs-module.h>

#include <QCoreApplication>
#include <QMessageBox>
#include <QMetaObject>
#include <QString>

namespace cv {

const char *const kStreamErrorTitle = "Vertical Canvas — Stream Error";

void post_stream_error_box(const std::string &message)
{
	QCoreApplication *app = QCoreApplication::instance();
	if (!app) {
		log_error("Vertical stream error: %s", message.c_str());
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
