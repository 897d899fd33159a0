#pragma once

// What went wrong with a destination or the recording, told in a notice beside the
// host's window that never blocks it: it is not modal, the host stays usable and can be
// closed while it is up, and a newer notice about the same thing replaces the older one.
// The words are the user's language.

#include "base/errors.h"

#include <QString>

class QWidget;

#include <string>

namespace cv {

enum class NoticeKind { Stream, Recording, Replay, Info };

// From any thread; shown later on the UI thread. `name` names a destination (empty for
// none). Without a Qt application it is only logged.
void post_notice(NoticeKind kind, const std::string &name, const Error &error);
// Shown at once (UI thread); returns the notice's window.
QWidget *show_notice(NoticeKind kind, const std::string &name, const Error &error);

// An error in the user's language.
QString error_text(const Error &error);

} // namespace cv
