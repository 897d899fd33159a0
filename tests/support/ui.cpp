#include "ui.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDialog>
#include <QElapsedTimer>
#include <QInputDialog>
#include <QMessageBox>
#include <QTimer>

#include <cstdlib>

namespace cvtest {

std::unique_ptr<QApplication> make_application(const char *platform)
{
	static int argc = 1;
	static char name[] = "cv_ui_tests";
	static char *argv[] = {name, nullptr};
	setenv("QT_QPA_PLATFORM", platform, 1);
	return std::make_unique<QApplication>(argc, argv);
}

struct ModalAnswerer::Impl {
	QTimer timer;
};

ModalAnswerer::ModalAnswerer(std::function<void(QWidget *)> answer) : impl_(std::make_unique<Impl>())
{
	QObject::connect(&impl_->timer, &QTimer::timeout, [this, answer] {
		QWidget *modal = QApplication::activeModalWidget();
		if (!modal || !modal->isVisible())
			return;
		answered_++;
		last_title_ = modal->windowTitle();
		if (auto *box = qobject_cast<QMessageBox *>(modal))
			last_text_ = box->text();
		else if (auto *input = qobject_cast<QInputDialog *>(modal))
			last_text_ = input->labelText();
		answer(modal);
	});
	impl_->timer.start(10);
}

ModalAnswerer::~ModalAnswerer() = default;

std::function<void(QWidget *)> type_and_accept(const QString &text)
{
	return [text](QWidget *modal) {
		if (auto *input = qobject_cast<QInputDialog *>(modal)) {
			input->setTextValue(text);
			input->accept();
		} else if (auto *dialog = qobject_cast<QDialog *>(modal)) {
			dialog->reject();
		}
	};
}

std::function<void(QWidget *)> press_button(int standard_button)
{
	return [standard_button](QWidget *modal) {
		auto *box = qobject_cast<QMessageBox *>(modal);
		QAbstractButton *button = box ? box->button(QMessageBox::StandardButton(standard_button)) : nullptr;
		if (button)
			button->click();
		else if (auto *dialog = qobject_cast<QDialog *>(modal))
			dialog->reject();
	};
}

std::function<void(QWidget *)> cancel_dialog()
{
	return [](QWidget *modal) {
		if (auto *dialog = qobject_cast<QDialog *>(modal))
			dialog->reject();
	};
}

void process_events_for(int ms)
{
	QElapsedTimer elapsed;
	elapsed.start();
	while (elapsed.elapsed() < ms)
		QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

} // namespace cvtest
