#pragma once

#include <obs-frontend-api.h>

namespace cv {

// Follows the host program: the main stream starting and stopping (the vertical
// output follows it), profile switches (the runtime is rebuilt), the end of loading
// (scenes restored, dock registered) and exit (dock placement recorded, output stopped).
// Not re-entrant: an event raised while one is handled is dropped.
void on_frontend_event(enum obs_frontend_event event, void *data);

} // namespace cv
