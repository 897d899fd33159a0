// The preview as a native window on the test's X server, drawn into by libobs.

#include "ui_test.h"

#include "sources.h"

#include "canvas/vertical_canvas.h"
#include "ui/vertical_preview.h"

// Last: Xlib's macros clash with Qt's names.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace {

class PreviewTest : public UiTest {
protected:
	const char *platform() const override { return "xcb"; }
	void TearDown() override
	{
		canvas_.reset();
		UiTest::TearDown();
	}

	// 0xRRGGBB of a pixel of a window, read from the X server once libobs drew it.
	static uint32_t window_pixel(WId window, int x, int y, uint32_t expected)
	{
		uint32_t rgb = 0xFFFFFFFF;
		for (int i = 0; i < 50 && !cvtest::close_to(rgb, expected); i++) {
			cvtest::process_events_for(50);
			Display *display = XOpenDisplay(nullptr);
			if (XImage *image = XGetImage(display, Window(window), x, y, 1, 1, AllPlanes, ZPixmap)) {
				rgb = uint32_t(XGetPixel(image, 0, 0)) & 0xFFFFFF;
				XDestroyImage(image);
			}
			XCloseDisplay(display);
		}
		return rgb;
	}

	std::unique_ptr<cv::VerticalCanvas> canvas_;
};

} // namespace

// The canvas's own view is what shows: the middle of the landscape scene, as streamed.
// Hidden, the preview drops its display; the canvas can be taken away while it shows.
TEST_F(PreviewTest, ShowsTheCanvasViewWhileShown)
{
	OBSSceneAutoRelease scene = cvtest::make_band_scene("Show", {0xFF0000, 0x00FF00, 0x0000FF});
	canvas_ = std::make_unique<cv::VerticalCanvas>(cv::CanvasConfig{360, 640, 30, 1, true});
	ASSERT_TRUE(canvas_->init());
	ASSERT_TRUE(canvas_->assign_scene_source("Scene 1", "Show"));
	cv::VerticalPreviewWidget preview(canvas_.get());
	preview.resize(180, 320);
	preview.show();
	for (const int x : {5, 90, 175})
		EXPECT_TRUE(cvtest::close_to(window_pixel(preview.winId(), x, 160, 0x00FF00), 0x00FF00)) << x;

	// No wider than 9:16 of its height.
	preview.resize(300, 320);
	cvtest::process_events_for(50);
	EXPECT_EQ(preview.width(), 180);

	preview.hide();
	EXPECT_EQ(preview.currentDisplay(), nullptr);
	preview.show();
	EXPECT_NE(preview.currentDisplay(), nullptr);

	preview.setCanvas(nullptr);
	canvas_.reset();
	EXPECT_TRUE(cvtest::close_to(window_pixel(preview.winId(), 90, 160, 0x080808), 0x080808));
}
