#pragma once

#include <QString>
#include <QWidget>

#include <functional>

// Answers to the dialogs the widgets open beside the host's window (none of them modal).
namespace cvtest {

// Finds the visible dialog named `name` among `parent`'s children, hands it to `answer`
// and lets the answer take effect; false when there is no such dialog.
bool answer_dialog(QWidget *parent, const char *name, const std::function<void(QWidget *)> &answer);

// Answers: type text into an input dialog and press Ok; press a message box's button;
// pick a row of a dialog's list and accept.
std::function<void(QWidget *)> type_and_accept(const QString &text);
std::function<void(QWidget *)> press_button(int standard_button);
std::function<void(QWidget *)> choose_row(const char *list, int row);

void process_events_for(int ms);

} // namespace cvtest
