#pragma once

// The host refuses to reset its video while any output of it runs, the vertical ones
// included, and keeps the profile's new video settings unapplied without a word. This
// tells when that happened: the profile asks for another size or frame rate than the
// host runs with.

namespace cv {

bool host_video_unapplied();

} // namespace cv
