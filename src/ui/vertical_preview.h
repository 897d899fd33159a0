#pragma once

#include "display_widget.h"

#include <QPoint>

#include <atomic>
#include <functional>

namespace cv {

class Commands;
class VerticalCanvas;
struct SceneLayout;
struct SourceSize;

// The live picture of the vertical canvas: libobs draws the canvas's own view into it,
// letterboxed, so what is shown is what is streamed. With the active vertical scene
// covering the canvas, a drag with the left button moves the picture and the wheel zooms
// it, through the commands. The safe-area guide is drawn over the picture here only.
class VerticalPreviewWidget : public DisplayWidget {
	Q_OBJECT

public:
	explicit VerticalPreviewWidget(VerticalCanvas *previewCanvas, QWidget *parent = nullptr);
	~VerticalPreviewWidget() override;

	// Waits for a frame being drawn from the old canvas, so the caller may delete that
	// canvas once this returns.
	void setCanvas(VerticalCanvas *newCanvas);
	VerticalCanvas *currentCanvas() const { return canvas; }
	// Null: the picture cannot be moved.
	void setCommands(Commands *newCommands) { commands = newCommands; }
	void setSafeAreaShown(bool shown) { safeArea = shown; }
	bool safeAreaShown() const { return safeArea; }

	QSize minimumSizeHint() const override;

signals:
	// The active scene's layout was changed by a drag or the wheel.
	void layoutEdited();

protected:
	void resizeEvent(QResizeEvent *event) override;
	void mousePressEvent(QMouseEvent *event) override;
	void mouseMoveEvent(QMouseEvent *event) override;
	void mouseReleaseEvent(QMouseEvent *event) override;
	void wheelEvent(QWheelEvent *event) override;
	void drawDisplay(uint32_t cx, uint32_t cy) override;

private:
	// Changes the active scene's layout when it is a cover.
	void editCover(const std::function<void(SceneLayout &, const SourceSize &)> &edit);

	// Read by the draw callback; changed only while it is not registered.
	VerticalCanvas *canvas = nullptr;
	Commands *commands = nullptr;
	std::atomic<bool> safeArea{false};
	bool dragging = false;
	QPoint dragFrom;
};

} // namespace cv
