#pragma once

#include "display_widget.h"

#include "base/errors.h"
#include "base/scene_layout.h"

#include <obs.hpp>

#include <QDialog>
#include <QPointF>
#include <QString>

#include <array>
#include <functional>
#include <mutex>
#include <string>

class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QPushButton;
class QRadioButton;
class QSpinBox;

namespace cv {

class VerticalCanvas;

// The host scene a stack cuts its regions from, scaled into the widget, with the two
// regions over it. A drag draws the chosen region; a drag inside it moves it. It holds
// the scene only while a frame is drawn, so it never keeps a scene the host let go.
class SceneRegionPicture : public DisplayWidget {
	Q_OBJECT

public:
	explicit SceneRegionPicture(QWidget *parent = nullptr);
	~SceneRegionPicture() override;

	// The scene and its size (zero for none); its top and bottom regions in its pixels.
	void setScene(obs_source_t *scene, uint32_t width, uint32_t height);
	void setRegions(const Region &top, const Region &bottom);
	// 0 for the top region, 1 for the bottom one.
	void setChosen(int region) { chosen = region; }

	// The chosen region as drawn or moved, in the scene's pixels.
	std::function<void(const Region &)> regionChanged;

protected:
	void mousePressEvent(QMouseEvent *event) override;
	void mouseMoveEvent(QMouseEvent *event) override;
	void mouseReleaseEvent(QMouseEvent *event) override;
	void drawDisplay(uint32_t cx, uint32_t cy) override;

private:
	QPointF scenePoint(const QMouseEvent *event) const;

	// Shared with the draw callback.
	std::mutex lock;
	OBSWeakSource scene;
	Region regions[2];

	uint32_t sceneWidth = 0;
	uint32_t sceneHeight = 0;
	int chosen = 0;
	enum class Drag { None, Draw, Move } drag = Drag::None;
	QPointF pressedAt;
	Region pressedRegion;
};

// How one vertical scene frames its host scene: cover with its focus and zoom, fit with
// its background, or stack with its split and regions. Every change goes to the canvas at
// once. It reads the canvas through `canvas` each time, so it outlives a replaced canvas;
// without a canvas it is disabled, and it closes when its scene is gone.
class SceneLayoutDialog : public QDialog {
	Q_OBJECT

public:
	using CanvasSource = std::function<VerticalCanvas *()>;
	using Apply = std::function<Error(const std::string &scene, const SceneLayout &layout)>;

	SceneLayoutDialog(const QString &sceneName, CanvasSource canvas, Apply apply, QWidget *parent = nullptr);

	const QString &sceneName() const { return name; }
	// Shows the layout and the host scene as the canvas has them now.
	void refresh();

private:
	// Changes the canvas's current layout (not what the dialog shows, which may be older).
	void edit(const std::function<void(SceneLayout &)> &change);
	void showLayout(const SceneLayout &layout);
	void chooseColour();

	QString name;
	CanvasSource canvasSource;
	Apply apply;
	QWidget *content = nullptr;
	QComboBox *kindCombo = nullptr;
	// Cover, fit and stack, in the order of LayoutKind.
	std::array<QWidget *, 3> pages = {};
	int shownPage = -1;
	QDoubleSpinBox *focusXSpin = nullptr;
	QDoubleSpinBox *focusYSpin = nullptr;
	QDoubleSpinBox *zoomSpin = nullptr;
	QRadioButton *blurRadio = nullptr;
	QRadioButton *colourRadio = nullptr;
	QPushButton *colourButton = nullptr;
	QSpinBox *splitSpin = nullptr;
	QRadioButton *bottomRadio = nullptr;
	SceneRegionPicture *picture = nullptr;
	QLabel *errorLabel = nullptr;
	// The colour the background takes when Colour is chosen.
	uint32_t colour = 0x000000;
};

} // namespace cv
