#pragma once

#include <QString>
#include <QWidget>

#include <functional>
#include <memory>

class QApplication;

// Qt helpers for widget tests: one application per test, and answers to the modal
// boxes and input dialogs the widgets open (which block inside exec()).
namespace cvtest {

// A QApplication on the given platform ("offscreen", or "xcb" for the test's Xvfb).
std::unique_ptr<QApplication> make_application(const char *platform);

// Until stopped, calls `answer` once for every modal widget that shows up (it must
// close it), and remembers each one's window title and text.
class ModalAnswerer {
public:
	explicit ModalAnswerer(std::function<void(QWidget *)> answer);
	~ModalAnswerer();

	int answered() const { return answered_; }
	const QString &last_title() const { return last_title_; }
	const QString &last_text() const { return last_text_; }

private:
	struct Impl;
	std::unique_ptr<Impl> impl_;
	int answered_ = 0;
	QString last_title_;
	QString last_text_;
};

// Answers: type text into an input dialog and press Ok; press a message box button;
// cancel whatever it is.
std::function<void(QWidget *)> type_and_accept(const QString &text);
std::function<void(QWidget *)> press_button(int standard_button);
std::function<void(QWidget *)> cancel_dialog();

// Runs the event loop for `ms` milliseconds.
void process_events_for(int ms);

} // namespace cvtest
