// The preview as a native window on the test's X server, drawn into by libobs.

#include "ui_test.h"

#include "sources.h"

#include "base/scene_layout.h"
#include "canvas/vertical_canvas.h"
#include "ui/vertical_preview.h"

#include <QDockWidget>

#include <QMainWindow>

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
// streamed. In a dock of the host's window, the preview's native window makes neither the
// dock nor the window native; it draws nothing while its dock is tabbed away (Qt leaves it
// shown, under the other) or the window is minimised.
TEST_F(PreviewTest, DrawsOnlyWhenSeenAndMakesNoNativeAncestors)
{
	OBSSceneAutoRelease scene = cvtest::make_band_scene("Show", {0x00FF00});
	cv::VerticalCanvas canvas(cv::CanvasConfig{360, 640, 30, 1, true});
	ASSERT_TRUE(canvas.init());
	ASSERT_TRUE(canvas.assign_scene_source("Scene 1", "Show"));
	QMainWindow window;
	window.setCentralWidget(new QWidget(&window));
	auto *dock = new QDockWidget("Vertical", &window);
	auto *other = new QDockWidget("Other", &window);
	dock->setObjectName("vertical");
	other->setObjectName("other");
	auto *box = new QWidget(dock);
	auto *preview = new cv::VerticalPreviewWidget(&canvas, box);
	preview->resize(180, 320);
	box->setMinimumSize(180, 320);
	dock->setWidget(box);
	other->setWidget(new QWidget(other));
	window.addDockWidget(Qt::RightDockWidgetArea, dock);
	window.addDockWidget(Qt::RightDockWidgetArea, other);
	window.tabifyDockWidget(other, dock);
	window.resize(600, 500);
	window.show();
	dock->raise();
	preview->setSafeAreaShown(true);
	EXPECT_TRUE(shows(preview->winId(), 90, 160, 0x00FF00));
	EXPECT_TRUE(shows(preview->winId(), 90, 10, 0x46C314)); // 31 % of 0xE04040 over green
	for (QWidget *widget : std::initializer_list<QWidget *>{box, dock, window.centralWidget()})
		EXPECT_FALSE(widget->internalWinId() || widget->testAttribute(Qt::WA_NativeWindow))
			<< widget->metaObject()->className() << " made native";
	preview->setSafeAreaShown(false);
	EXPECT_TRUE(shows(preview->winId(), 90, 10, 0x00FF00));

	other->raise();
	cvtest::process_events_for(100);
	ASSERT_NE(preview->currentDisplay(), nullptr);
	EXPECT_FALSE(obs_display_enabled(preview->currentDisplay())) << "tabbed away";
	dock->raise();
	cvtest::process_events_for(100);
	EXPECT_TRUE(obs_display_enabled(preview->currentDisplay()));
	window.showMinimized();
	cvtest::process_events_for(100);
	EXPECT_FALSE(obs_display_enabled(preview->currentDisplay())) << "minimised";
	window.showNormal();
	cvtest::process_events_for(100);
	EXPECT_TRUE(obs_display_enabled(preview->currentDisplay()));
}
