#pragma once

#include <QString>
#include <QTimer>
#include <QWidget>

#include <functional>

// Answers to the modal boxes and dialogs the widgets open (they block inside exec()).
namespace cvtest {

// Until destroyed, hands every modal that shows up to `answer` and rejects it if that
// left it open; counts them and keeps the last message box's text.
class ModalAnswerer {
public:
	explicit ModalAnswerer(std::function<void(QWidget *)> answer);
	int answered() const { return answered_; }
	const QString &last_text() const { return last_text_; }

private:
	int answered_ = 0;
	QString last_text_;
	QTimer timer_;
};

// Answers: type text into an input dialog and press Ok; press a message box's button.
std::function<void(QWidget *)> type_and_accept(const QString &text);
std::function<void(QWidget *)> press_button(int standard_button);

void process_events_for(int ms);

} // namespace cvtest
