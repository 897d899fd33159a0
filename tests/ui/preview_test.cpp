// The preview as a native window on the test's X server, drawn into by libobs.

#include "ui_test.h"

#include "sources.h"

#include "base/scene_layout.h"
#include "canvas/vertical_canvas.h"
#include "ui/vertical_preview.h"

// Last: Xlib's macros clash with Qt's names.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace {

class PreviewTest : public UiTest {
protected:
	const char *platform() const override { return "xcb"; }

	// Whether a pixel of the window, read from the X server, comes to be this 0xRRGGBB.
	static bool shows(WId window, int x, int y, uint32_t rgb)
	{
		uint32_t seen = 0xFFFFFFFF;
		for (int i = 0; i < 50 && !cvtest::close_to(seen, rgb); i++) {
			cvtest::process_events_for(50);
			Display *display = XOpenDisplay(nullptr);
			if (XImage *image = XGetImage(display, Window(window), x, y, 1, 1, AllPlanes, ZPixmap)) {
				seen = uint32_t(XGetPixel(image, 0, 0)) & 0xFFFFFF;
				XDestroyImage(image);
			}
			XCloseDisplay(display);
		}
		return cvtest::close_to(seen, rgb);
	}
};

} // namespace

// The canvas's own view is what shows: the middle of the landscape scene, as streamed.
// Hidden, the preview drops its display; the canvas can be taken away while it shows.
TEST_F(PreviewTest, ShowsTheCanvasViewWhileShown)
{
	OBSSceneAutoRelease scene = cvtest::make_band_scene("Show", {0xFF0000, 0x00FF00, 0x0000FF});
	auto canvas = std::make_unique<cv::VerticalCanvas>(cv::CanvasConfig{360, 640, 30, 1, true});
	ASSERT_TRUE(canvas->init());
	ASSERT_TRUE(canvas->assign_scene_source("Scene 1", "Show"));
	cv::VerticalPreviewWidget preview(canvas.get());
	preview.resize(180, 320);
	preview.show();
	for (const int x : {5, 90, 175})
		EXPECT_TRUE(shows(preview.winId(), x, 160, 0x00FF00)) << x;

	// Two regions above each other, each cut to its own part on the display.
	cv::SceneLayout stack;
	stack.kind = cv::LayoutKind::Stack;
	stack.top = {0, 0, 640, 1080};
	stack.bottom = {1280, 0, 640, 1080};
	ASSERT_TRUE(canvas->set_scene_layout("Scene 1", stack));
	EXPECT_TRUE(shows(preview.winId(), 90, 40, 0xFF0000));
	EXPECT_TRUE(shows(preview.winId(), 90, 280, 0x0000FF));
	ASSERT_TRUE(canvas->set_scene_layout("Scene 1", {}));

	// No wider than 9:16 of its height.
	preview.resize(300, 320);
	cvtest::process_events_for(50);
	EXPECT_EQ(preview.width(), 180);

	preview.hide();
	EXPECT_EQ(preview.currentDisplay(), nullptr);
	preview.show();
	EXPECT_NE(preview.currentDisplay(), nullptr);

	preview.setCanvas(nullptr);
	canvas.reset();
	EXPECT_TRUE(shows(preview.winId(), 90, 160, 0x080808));
}

// The safe-area guide tints the phone apps' zones over the picture, the rest is as
// streamed; the preview's native window makes no native window of the widgets it sits in.
TEST_F(PreviewTest, DrawsTheSafeAreaWithoutNativeAncestors)
{
	OBSSceneAutoRelease scene = cvtest::make_band_scene("Show", {0x00FF00});
	cv::VerticalCanvas canvas(cv::CanvasConfig{360, 640, 30, 1, true});
	ASSERT_TRUE(canvas.init());
	ASSERT_TRUE(canvas.assign_scene_source("Scene 1", "Show"));
	QWidget window;
	auto *box = new QWidget(&window);
	auto *preview = new cv::VerticalPreviewWidget(&canvas, box);
	preview->resize(180, 320);
	window.resize(180, 320);
	window.show();
	preview->setSafeAreaShown(true);
	EXPECT_TRUE(shows(preview->winId(), 90, 160, 0x00FF00));
	EXPECT_TRUE(shows(preview->winId(), 90, 10, 0x46C314)); // 31 % of 0xE04040 over green
	EXPECT_NE(preview->internalWinId(), 0u);
	EXPECT_EQ(box->internalWinId(), 0u);
	EXPECT_FALSE(box->testAttribute(Qt::WA_NativeWindow));
	preview->setSafeAreaShown(false);
	EXPECT_TRUE(shows(preview->winId(), 90, 10, 0x00FF00));
}
