#include "ui.h"

#include <QAbstractButton>
#include <QApplication>
#include <QElapsedTimer>
#include <QInputDialog>
#include <QMessageBox>

namespace cvtest {

ModalAnswerer::ModalAnswerer(std::function<void(QWidget *)> answer)
{
	QObject::connect(&timer_, &QTimer::timeout, [this, answer] {
		QWidget *modal = QApplication::activeModalWidget();
		if (!modal || !modal->isVisible())
			return;
		answered_++;
		if (auto *box = qobject_cast<QMessageBox *>(modal))
			last_text_ = box->text();
		answer(modal);
		// The modal lives on until its exec() returns, after this slot.
		if (auto *dialog = qobject_cast<QDialog *>(modal); dialog && dialog->isVisible())
			dialog->reject();
	});
	timer_.start(10);
}

std::function<void(QWidget *)> type_and_accept(const QString &text)
{
	return [text](QWidget *modal) {
		if (auto *input = qobject_cast<QInputDialog *>(modal)) {
			input->setTextValue(text);
			input->accept();
		}
	};
}

std::function<void(QWidget *)> press_button(int standard_button)
{
	return [standard_button](QWidget *modal) {
		auto *box = qobject_cast<QMessageBox *>(modal);
		if (QAbstractButton *button = box ? box->button(QMessageBox::StandardButton(standard_button)) : nullptr)
			button->click();
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
