#include "scene_layout_dialog.h"

#include "notices.h"
#include "texts.h"

#include "base/placement.h"
#include "canvas/vertical_canvas.h"

#include <graphics/graphics.h>

#include <QColorDialog>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLayout>
#include <QMouseEvent>
#include <QPixmap>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

namespace cv {

namespace {

constexpr const char *kHintStyle = "font-size: 11px; color: #aaa;";
// The top region's colour and the bottom one's, 0xRRGGBB.
constexpr uint32_t kRegionColours[2] = {0xFFA030, 0x30A0FF};

std::string utf8(const QString &text)
{
	return text.toUtf8().toStdString();
}

// A point of a widget showing the scene as large as fits, in the scene's pixels, held
// inside the scene.
QPointF scene_point(const QPointF &at, const QSize &widget, uint32_t width, uint32_t height)
{
	const PreviewViewport view =
		preview_viewport(uint32_t(widget.width()), uint32_t(widget.height()), width, height);
	if (!view.width || !view.height)
		return {};
	return {std::clamp((at.x() - view.x) * width / view.width, 0.0, double(width)),
		std::clamp((at.y() - view.y) * height / view.height, 0.0, double(height))};
}

// `value` moved as little as needed to lie in [low, high].
double held(double value, double low, double high)
{
	return std::max(low, std::min(value, high));
}

QDoubleSpinBox *make_spin(QWidget *parent, const char *name, double low, double high, double step, int decimals,
			  const QString &suffix)
{
	auto *spin = new QDoubleSpinBox(parent);
	spin->setObjectName(name);
	spin->setRange(low, high);
	spin->setSingleStep(step);
	spin->setDecimals(decimals);
	spin->setSuffix(suffix);
	spin->setKeyboardTracking(false);
	return spin;
}

template<typename Spin, typename Value> void show_value(Spin *spin, Value value)
{
	if (spin->value() == value)
		return;
	const QSignalBlocker quiet(spin);
	spin->setValue(value);
}

// The other button of its pair goes off by itself.
void show_checked(QRadioButton *radio)
{
	const QSignalBlocker quiet(radio);
	radio->setChecked(true);
}

} // namespace

SceneRegionPicture::SceneRegionPicture(QWidget *parent) : DisplayWidget(parent)
{
	setMinimumSize(320, 180);
	setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

SceneRegionPicture::~SceneRegionPicture()
{
	destroyDisplay();
}

void SceneRegionPicture::setScene(obs_source_t *source, uint32_t width, uint32_t height)
{
	sceneWidth = width;
	sceneHeight = height;
	OBSWeakSource weak = OBSGetWeakRef(source);
	const std::lock_guard<std::mutex> hold(lock);
	scene = weak;
}

void SceneRegionPicture::setRegions(const Region &top, const Region &bottom)
{
	const std::lock_guard<std::mutex> hold(lock);
	regions[0] = top;
	regions[1] = bottom;
}

QPointF SceneRegionPicture::scenePoint(const QMouseEvent *event) const
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
	const QPointF at = event->position();
#else
	const QPointF at = event->localPos();
#endif
	return scene_point(at, size(), sceneWidth, sceneHeight);
}

void SceneRegionPicture::mousePressEvent(QMouseEvent *event)
{
	if (event->button() != Qt::LeftButton || !sceneWidth || !sceneHeight)
		return DisplayWidget::mousePressEvent(event);
	pressedAt = scenePoint(event);
	pressedRegion = regions[chosen]; // written on this thread only
	const Region &r = pressedRegion;
	const bool inside = !r.empty() && pressedAt.x() >= r.x && pressedAt.x() <= r.x + r.width &&
			    pressedAt.y() >= r.y && pressedAt.y() <= r.y + r.height;
	drag = inside ? Drag::Move : Drag::Draw;
}

void SceneRegionPicture::mouseMoveEvent(QMouseEvent *event)
{
	if (drag == Drag::None)
		return DisplayWidget::mouseMoveEvent(event);
	const QPointF at = scenePoint(event);
	Region region = pressedRegion;
	if (drag == Drag::Draw) {
		region.x = std::round(std::min(at.x(), pressedAt.x()));
		region.y = std::round(std::min(at.y(), pressedAt.y()));
		region.width = std::round(std::max(at.x(), pressedAt.x())) - region.x;
		region.height = std::round(std::max(at.y(), pressedAt.y())) - region.y;
	} else {
		region.x = held(std::round(region.x + at.x() - pressedAt.x()), 0.0, sceneWidth - region.width);
		region.y = held(std::round(region.y + at.y() - pressedAt.y()), 0.0, sceneHeight - region.height);
	}
	if (!region.empty() && regionChanged)
		regionChanged(region);
}

void SceneRegionPicture::mouseReleaseEvent(QMouseEvent *event)
{
	if (event->button() == Qt::LeftButton)
		drag = Drag::None;
	DisplayWidget::mouseReleaseEvent(event);
}

// Graphics thread.
void SceneRegionPicture::drawDisplay(uint32_t cx, uint32_t cy)
{
	OBSSourceAutoRelease source;
	Region shown[2];
	{
		const std::lock_guard<std::mutex> hold(lock);
		source = obs_weak_source_get_source(scene);
		std::copy(std::begin(regions), std::end(regions), shown);
	}
	const uint32_t width = source ? obs_source_get_width(source) : 0;
	const uint32_t height = source ? obs_source_get_height(source) : 0;
	const PreviewViewport view = preview_viewport(cx, cy, width, height);
	if (!view.width || !view.height)
		return;
	gs_viewport_push();
	gs_projection_push();
	gs_set_viewport(int(view.x), int(view.y), int(view.width), int(view.height));
	gs_ortho(0.0f, float(width), 0.0f, float(height), -100.0f, 100.0f);
	obs_source_video_render(source);
	// Two display pixels, in the scene's.
	const float line = 2.0f * float(width) / float(view.width);
	for (int i = 0; i < 2; i++) {
		const float x = float(shown[i].x), y = float(shown[i].y);
		const float w = float(shown[i].width), h = float(shown[i].height);
		const uint32_t rgb = kRegionColours[i];
		draw_tint(x, y, w, h, 0x30000000 | rgb);
		draw_tint(x, y, w, line, 0xFF000000 | rgb);
		draw_tint(x, y + h - line, w, line, 0xFF000000 | rgb);
		draw_tint(x, y, line, h, 0xFF000000 | rgb);
		draw_tint(x + w - line, y, line, h, 0xFF000000 | rgb);
	}
	gs_projection_pop();
	gs_viewport_pop();
}

SceneLayoutDialog::SceneLayoutDialog(const QString &sceneName, CanvasSource canvas, Apply applyLayout, QWidget *parent)
	: QDialog(parent),
	  name(sceneName),
	  canvasSource(std::move(canvas)),
	  apply(std::move(applyLayout))
{
	setWindowTitle(text("Layout.Title").arg(sceneName));
	auto *main = new QVBoxLayout(this);
	content = new QWidget(this);
	auto *rows = new QVBoxLayout(content);
	rows->setContentsMargins(0, 0, 0, 0);
	main->addWidget(content, 1);

	auto *kindRow = new QFormLayout;
	kindCombo = new QComboBox(content);
	kindCombo->setObjectName("layoutKind");
	for (const char *key : {"Layout.Cover", "Layout.Fit", "Layout.Stack"})
		kindCombo->addItem(text(key));
	kindRow->addRow(text("Layout.Kind"), kindCombo);
	rows->addLayout(kindRow);

	// Cover: the focus in per cent of the host scene, and the zoom.
	auto *cover = new QWidget(content);
	auto *coverForm = new QFormLayout(cover);
	focusXSpin = make_spin(cover, "focusX", 0.0, 100.0, 1.0, 1, " %");
	focusYSpin = make_spin(cover, "focusY", 0.0, 100.0, 1.0, 1, " %");
	zoomSpin = make_spin(cover, "zoom", kMinZoom, kMaxZoom, 0.1, 2, QString::fromUtf8(" \u00D7"));
	coverForm->addRow(text("Layout.FocusX"), focusXSpin);
	coverForm->addRow(text("Layout.FocusY"), focusYSpin);
	coverForm->addRow(text("Layout.Zoom"), zoomSpin);
	auto *coverHint = new QLabel(text("Layout.CoverHint"), cover);
	coverHint->setWordWrap(true);
	coverHint->setStyleSheet(kHintStyle);
	coverForm->addRow(coverHint);
	rows->addWidget(cover, 1);

	// Fit: the background around the picture.
	auto *fit = new QWidget(content);
	auto *fitForm = new QFormLayout(fit);
	blurRadio = new QRadioButton(text("Layout.Blur"), fit);
	blurRadio->setObjectName("blurBackground");
	colourRadio = new QRadioButton(text("Layout.Colour"), fit);
	colourRadio->setObjectName("colourBackground");
	colourButton = new QPushButton(fit);
	colourButton->setObjectName("colourButton");
	auto *colourRow = new QHBoxLayout;
	colourRow->addWidget(colourRadio);
	colourRow->addWidget(colourButton);
	colourRow->addStretch();
	fitForm->addRow(text("Layout.Background"), blurRadio);
	fitForm->addRow(QString(), colourRow);
	rows->addWidget(fit, 1);

	// Stack: the split, and the regions drawn on the host scene.
	auto *stack = new QWidget(content);
	auto *stackRows = new QVBoxLayout(stack);
	auto *stackForm = new QFormLayout;
	splitSpin = new QSpinBox(stack);
	splitSpin->setObjectName("split");
	splitSpin->setRange(int(std::lround(kMinSplit * 100)), int(std::lround(kMaxSplit * 100)));
	splitSpin->setSuffix(" %");
	splitSpin->setKeyboardTracking(false);
	stackForm->addRow(text("Layout.Split"), splitSpin);
	auto *topRadio = new QRadioButton(text("Layout.Top"), stack);
	topRadio->setChecked(true);
	bottomRadio = new QRadioButton(text("Layout.Bottom"), stack);
	bottomRadio->setObjectName("bottomRegion");
	auto *regionRow = new QHBoxLayout;
	regionRow->addWidget(topRadio);
	regionRow->addWidget(bottomRadio);
	regionRow->addStretch();
	stackForm->addRow(text("Layout.Region"), regionRow);
	stackRows->addLayout(stackForm);
	picture = new SceneRegionPicture(stack);
	picture->setObjectName("regionPicture");
	stackRows->addWidget(picture, 1);
	auto *stackHint = new QLabel(text("Layout.RegionHint"), stack);
	stackHint->setWordWrap(true);
	stackHint->setStyleSheet(kHintStyle);
	stackRows->addWidget(stackHint);
	rows->addWidget(stack, 1);
	pages = {cover, fit, stack};

	errorLabel = new QLabel(this);
	errorLabel->setObjectName("errorLabel");
	errorLabel->setWordWrap(true);
	errorLabel->setStyleSheet("font-size: 11px; color: #e05252;");
	errorLabel->hide();
	main->addWidget(errorLabel);
	auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
	connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
	main->addWidget(buttons);

	connect(kindCombo, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
		[this](int index) { edit([&](SceneLayout &layout) { layout.kind = LayoutKind(index); }); });
	connect(focusXSpin, QOverload<double>::of(&QDoubleSpinBox::valueChanged), this,
		[this](double value) { edit([&](SceneLayout &layout) { layout.focus_x = value / 100; }); });
	connect(focusYSpin, QOverload<double>::of(&QDoubleSpinBox::valueChanged), this,
		[this](double value) { edit([&](SceneLayout &layout) { layout.focus_y = value / 100; }); });
	connect(zoomSpin, QOverload<double>::of(&QDoubleSpinBox::valueChanged), this,
		[this](double value) { edit([&](SceneLayout &layout) { layout.zoom = value; }); });
	connect(blurRadio, &QRadioButton::toggled, this, [this](bool on) {
		if (on)
			edit([](SceneLayout &layout) { layout.background = kBlurBackground; });
	});
	connect(colourRadio, &QRadioButton::toggled, this, [this](bool on) {
		if (on)
			edit([this](SceneLayout &layout) { layout.background = colour_text(colour); });
	});
	connect(colourButton, &QPushButton::clicked, this, &SceneLayoutDialog::chooseColour);
	connect(splitSpin, QOverload<int>::of(&QSpinBox::valueChanged), this,
		[this](int value) { edit([&](SceneLayout &layout) { layout.split = value / 100.0; }); });
	connect(bottomRadio, &QRadioButton::toggled, this, [this](bool on) { picture->setChosen(on ? 1 : 0); });
	picture->regionChanged = [this](const Region &region) {
		const bool bottom = bottomRadio->isChecked();
		edit([&](SceneLayout &layout) { (bottom ? layout.bottom : layout.top) = region; });
	};

	refresh();
}

void SceneLayoutDialog::refresh()
{
	VerticalCanvas *canvas = canvasSource ? canvasSource() : nullptr;
	content->setEnabled(canvas != nullptr);
	if (!canvas) {
		picture->setScene(nullptr, 0, 0);
		return;
	}
	const std::string scene = utf8(name);
	const std::optional<SceneLayout> layout = canvas->scene_layout(scene);
	if (!layout) {
		close();
		return;
	}
	showLayout(*layout);
	const SourceSize size = canvas->scene_source_size(scene);
	const std::string host = canvas->scene_source_name(scene);
	OBSSourceAutoRelease source = host.empty() ? nullptr : obs_get_source_by_name(host.c_str());
	picture->setScene(source, size.width, size.height);
	picture->setRegions(top_region(*layout, size.width, size.height),
			    bottom_region(*layout, size.width, size.height));
}

void SceneLayoutDialog::edit(const std::function<void(SceneLayout &)> &change)
{
	VerticalCanvas *canvas = canvasSource ? canvasSource() : nullptr;
	std::optional<SceneLayout> layout = canvas ? canvas->scene_layout(utf8(name)) : std::nullopt;
	if (layout) {
		change(*layout);
		const Error error = apply ? apply(utf8(name), *layout) : Error(ErrorCode::NotLoaded);
		errorLabel->setText(error_text(error));
		errorLabel->setVisible(bool(error));
	}
	refresh();
}

void SceneLayoutDialog::showLayout(const SceneLayout &layout)
{
	if (kindCombo->currentIndex() != int(layout.kind)) {
		const QSignalBlocker quiet(kindCombo);
		kindCombo->setCurrentIndex(int(layout.kind));
	}
	const int page = int(layout.kind);
	// Only the layout's own page shows, and the dialog is as large as it needs.
	if (page != shownPage) {
		for (int i = 0; i < int(pages.size()); i++)
			pages[i]->setVisible(i == page);
		shownPage = page;
		content->layout()->activate();
		QWidget::layout()->activate();
		adjustSize();
	}
	show_value(focusXSpin, layout.focus_x * 100);
	show_value(focusYSpin, layout.focus_y * 100);
	show_value(zoomSpin, layout.zoom);
	const std::optional<uint32_t> rgb = parse_colour(layout.background);
	if (rgb)
		colour = *rgb;
	show_checked(rgb ? colourRadio : blurRadio);
	QPixmap swatch(16, 16);
	swatch.fill(QColor(QRgb(colour)));
	colourButton->setIcon(QIcon(swatch));
	colourButton->setText(QString::fromStdString(colour_text(colour)));
	show_value(splitSpin, int(std::lround(layout.split * 100)));
}

// Beside the dialog, which stays usable; the colour is taken when the picker's Ok is pressed.
void SceneLayoutDialog::chooseColour()
{
	auto *picker = new QColorDialog(QColor(QRgb(colour)), this);
	picker->setObjectName("colourPicker");
	picker->setOption(QColorDialog::DontUseNativeDialog);
	picker->setWindowModality(Qt::NonModal);
	picker->setAttribute(Qt::WA_DeleteOnClose);
	connect(picker, &QColorDialog::colorSelected, this, [this](const QColor &chosen) {
		colour = uint32_t(chosen.rgb()) & 0xFFFFFF;
		edit([this](SceneLayout &layout) { layout.background = colour_text(colour); });
	});
	picker->show();
}

} // namespace cv
