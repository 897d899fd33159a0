#include "notices.h"

#include "texts.h"

#include "base/log.h"

#include <obs-frontend-api.h>

#include <QApplication>
#include <QMessageBox>
#include <QMetaObject>
#include <QWidget>

namespace cv {

QString error_text(const Error &error)
{
	const char *key = error_key(error.code);
	if (!*key)
		return {};
	QString detail = QString::fromUtf8(error.detail.c_str(), int(error.detail.size()));
	// A recording that stopped without the host's own words: the file could not be written.
	if (error.code == ErrorCode::RecordingStopped && detail.isEmpty())
		detail = text("Error.FileNotWritten");
	const QString words = text(key);
	return words.contains("%1") ? words.arg(detail) : words;
}

QWidget *show_notice(NoticeKind kind, const std::string &name, const Error &error)
{
	const QString title = text(kind == NoticeKind::Stream      ? "Error.StreamTitle"
				   : kind == NoticeKind::Recording ? "Error.RecordingTitle"
				   : kind == NoticeKind::Replay    ? "Error.ReplayTitle"
								   : "Notice.Title");
	const QString about = QString::fromUtf8(name.c_str(), int(name.size()));
	const QString body = about.isEmpty() ? error_text(error) : about + ": " + error_text(error);
	auto *parent = static_cast<QWidget *>(obs_frontend_get_main_window());
	// One notice per destination (or the recording, or the replay buffer): a newer one
	// replaces its words.
	const QString id = QString("cv-notice-%1-%2").arg(int(kind)).arg(about);
	QMessageBox *box = nullptr;
	for (QWidget *window :
	     parent ? parent->findChildren<QWidget *>(id, Qt::FindDirectChildrenOnly) : QApplication::topLevelWidgets())
		if (window->objectName() == id && window->isVisible())
			box = qobject_cast<QMessageBox *>(window);
	if (!box) {
		box = new QMessageBox(kind == NoticeKind::Info ? QMessageBox::Information : QMessageBox::Critical,
				      title, body, QMessageBox::Ok, parent);
		box->setObjectName(id);
		box->setWindowModality(Qt::NonModal);
		box->setAttribute(Qt::WA_DeleteOnClose);
	}
	box->setText(body);
	box->show();
	box->raise();
	return box;
}

void post_notice(NoticeKind kind, const std::string &name, const Error &error)
{
	// Without the host's widgets there is nothing to show a notice on.
	QCoreApplication *app = QCoreApplication::instance();
	if (!qobject_cast<QApplication *>(app)) {
		log_error("%s%s%s", name.c_str(), name.empty() ? "" : ": ", english(error).c_str());
		return;
	}
	QMetaObject::invokeMethod(
		app, [kind, name, error] { show_notice(kind, name, error); }, Qt::QueuedConnection);
}

} // namespace cv
