#pragma once

namespace cv {

// Whether the linked FFmpeg's FLV muxer accepts more than one audio stream (older
// versions refuse a second one when the header is written). Found out once, by
// trying, and remembered.
bool flv_supports_multiple_audio();

} // namespace cv
