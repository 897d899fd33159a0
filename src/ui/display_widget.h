#pragma once

#include <obs.h>

#include <QPointer>
#include <QWidget>

#include <functional>

class QDockWidget;
class QWindow;

namespace cv {

// A native window libobs draws into: Qt never paints it; drawDisplay() runs on the
// graphics thread. On X11 the display is made when the widget shows. On Wayland libobs
// draws on the window's wl_surface, which Qt makes when the window shows and takes away
// when it hides: the display is made once the surface is there (an expose, the surface's
// creation, a new native window after a dock floated) and goes before Qt destroys the
// surface. It goes whenever the widget hides (a closed or tabbed-away dock), and draws
// nothing while its window is minimised, as the host's own preview. Its ancestors stay
// plain widgets, so the host's window and docks are not made native.
class DisplayWidget : public QWidget {
	Q_OBJECT

public:
	explicit DisplayWidget(QWidget *parent = nullptr);
	~DisplayWidget() override;

	obs_display_t *currentDisplay() const { return display; }
	QPaintEngine *paintEngine() const override;

protected:
	// Graphics thread; cx by cy is the display's size.
	virtual void drawDisplay(uint32_t cx, uint32_t cy) = 0;
	// Runs `change` while no frame is drawn, for what drawDisplay() reads.
	void whileNotDrawing(const std::function<void()> &change);
	// A subclass calls it in its destructor, before what drawDisplay() reads goes.
	void destroyDisplay();

	bool event(QEvent *event) override;
	void showEvent(QShowEvent *event) override;
	void hideEvent(QHideEvent *event) override;
	void resizeEvent(QResizeEvent *event) override;
	bool eventFilter(QObject *watched, QEvent *event) override;

private:
	static void draw(void *param, uint32_t cx, uint32_t cy);
	void createDisplay();
	// Wayland: createDisplay() once Qt has settled the window's surface.
	void createSoon();
	void watchWindow();
	// Follows the top-level window's minimising and the dock the widget is in: drawn only
	// while neither is minimised nor the dock tabbed away (which Qt does not hide).
	void watchTopLevel();
	void enableForTopLevel();
	QSize pixelSize() const;

	obs_display_t *display = nullptr;
	// Wayland: the wl_surface the display draws on.
	void *surface = nullptr;
	bool createPending = false;
	// The native window whose expose and surface events tell when a Wayland surface is there.
	QPointer<QWindow> watched;
	QPointer<QWidget> topLevel;
	QPointer<QDockWidget> dock;
	QMetaObject::Connection dockShown;
	bool dockSeen = true;
};

// Graphics thread, inside a display's draw: fills a rectangle of the current projection
// with a colour 0xAARRGGBB, blended over what is drawn.
void draw_tint(float x, float y, float width, float height, uint32_t argb);

} // namespace cv
