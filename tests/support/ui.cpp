#include "ui.h"

#include <QAbstractButton>
#include <QApplication>
#include <QElapsedTimer>
#include <QInputDialog>
#include <QListWidget>
#include <QMessageBox>

namespace cvtest {

bool answer_dialog(QWidget *parent, const char *name, const std::function<void(QWidget *)> &answer)
{
	process_events_for(50);
	QWidget *dialog = nullptr;
	for (QWidget *child : parent->findChildren<QWidget *>(name))
		if (child->isVisible())
			dialog = child;
	if (!dialog)
		return false;
	answer(dialog);
	process_events_for(50);
	return true;
}

std::function<void(QWidget *)> type_and_accept(const QString &text)
{
	return [text](QWidget *dialog) {
		if (auto *input = qobject_cast<QInputDialog *>(dialog)) {
			input->setTextValue(text);
			input->accept();
		}
	};
}

std::function<void(QWidget *)> press_button(int standard_button)
{
	return [standard_button](QWidget *dialog) {
		auto *box = qobject_cast<QMessageBox *>(dialog);
		if (QAbstractButton *button = box ? box->button(QMessageBox::StandardButton(standard_button)) : nullptr)
			button->click();
	};
}

std::function<void(QWidget *)> choose_row(const char *list, int row)
{
	return [list, row](QWidget *dialog) {
		dialog->findChild<QListWidget *>(list)->setCurrentRow(row);
		qobject_cast<QDialog *>(dialog)->accept();
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
