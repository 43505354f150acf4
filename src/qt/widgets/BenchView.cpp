#include "qt/widgets/BenchView.h"

#include <QFontMetrics>
#include <QPaintEvent>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>

namespace quorvel::widgets {

using app::TileState;

namespace {
// Each state has its own colour, word and shape. Blue and orange stay apart for every
// common colour-vision deficiency; the word and the shape carry the state on their own.
const QColor kPassColour(0, 114, 178);
const QColor kFailColour(213, 94, 0);
const QColor kFlashColour(51, 65, 77);
const QColor kBarColour(240, 228, 66);
const QColor kWaitColour(240, 228, 66);
const QColor kInterruptedColour(117, 112, 179);
const QColor kIdleColour(228, 235, 231);
const QColor kAbsentColour(245, 247, 246);
const QColor kDarkInk(40, 50, 45);
constexpr int kGap = 6;

QColor Background(TileState s) {
    switch (s) {
        case TileState::PASS: return kPassColour;
        case TileState::FAIL: return kFailColour;
        case TileState::FLASHING: return kFlashColour;
        case TileState::WAITING: return kWaitColour;
        case TileState::INTERRUPTED: return kInterruptedColour;
        case TileState::IDLE: return kIdleColour;
        case TileState::ABSENT: break;
    }
    return kAbsentColour;
}

QColor Ink(TileState s) {
    return s == TileState::IDLE || s == TileState::ABSENT || s == TileState::WAITING ? kDarkInk : QColor(Qt::white);
}

QFont Face(int pixels, bool bold) {
    QFont f(QStringLiteral("Arial"));
    f.setPixelSize(std::max(6, pixels));
    f.setBold(bold);
    return f;
}

// The largest face, up to the box's height, in which `text` fits the box.
QFont Fitted(const QString& text, QSize box, bool bold) {
    QFont f = Face(box.height(), bold);
    const int tall = QFontMetrics(f).height();
    if (tall > box.height()) f = Face(f.pixelSize() * box.height() / tall, bold);
    const int wide = QFontMetrics(f).horizontalAdvance(text);
    if (wide > box.width()) f = Face(f.pixelSize() * box.width() / wide, bold);
    return f;
}

void DrawTick(QPainter& p, const QRectF& r) {
    QPainterPath path;
    path.moveTo(r.left() + r.width() * 0.1, r.top() + r.height() * 0.55);
    path.lineTo(r.left() + r.width() * 0.4, r.top() + r.height() * 0.85);
    path.lineTo(r.left() + r.width() * 0.9, r.top() + r.height() * 0.2);
    p.drawPath(path);
}

void DrawCross(QPainter& p, const QRectF& r) {
    const QRectF c = r.adjusted(r.width() * 0.15, r.height() * 0.15, -r.width() * 0.15, -r.height() * 0.15);
    p.drawLine(c.topLeft(), c.bottomRight());
    p.drawLine(c.topRight(), c.bottomLeft());
}

// An arrow into the phone: the image going down.
void DrawArrow(QPainter& p, const QRectF& r) {
    const double x = r.center().x();
    p.drawLine(QPointF(x, r.top() + r.height() * 0.1), QPointF(x, r.bottom() - r.height() * 0.15));
    QPainterPath head;
    head.moveTo(r.left() + r.width() * 0.2, r.top() + r.height() * 0.5);
    head.lineTo(x, r.bottom() - r.height() * 0.1);
    head.lineTo(r.right() - r.width() * 0.2, r.top() + r.height() * 0.5);
    p.drawPath(head);
}

// An hourglass: a phone is there, its job has not begun.
void DrawHourglass(QPainter& p, const QRectF& r) {
    const QRectF c = r.adjusted(r.width() * 0.2, r.height() * 0.1, -r.width() * 0.2, -r.height() * 0.1);
    QPainterPath path;
    path.moveTo(c.topLeft());
    path.lineTo(c.topRight());
    path.lineTo(c.bottomLeft());
    path.lineTo(c.bottomRight());
    path.closeSubpath();
    p.drawPath(path);
}

// A stop square: the job was cut short.
void DrawStop(QPainter& p, const QRectF& r) {
    const QRectF c = r.adjusted(r.width() * 0.2, r.height() * 0.2, -r.width() * 0.2, -r.height() * 0.2);
    p.save();
    p.setBrush(p.pen().color());
    p.drawRect(c);
    p.restore();
}

// An empty ring: a socket without a phone.
void DrawRing(QPainter& p, const QRectF& r) {
    p.drawEllipse(r.adjusted(r.width() * 0.2, r.height() * 0.2, -r.width() * 0.2, -r.height() * 0.2));
}
}  // namespace

BenchView::BenchView(QWidget* parent) : QWidget(parent) {
    setObjectName(QStringLiteral("benchView"));
    setAttribute(Qt::WA_OpaquePaintEvent);
    for (std::size_t n = 0; n < tiles_.size(); ++n) tiles_[n].slot = static_cast<int>(n) + 1;
}

void BenchView::Show(const app::SlotListSnapshot& list) {
    auto tiles = app::BenchTiles(list);
    for (std::size_t n = 0; n < tiles.size(); ++n) {
        const auto& a = tiles[n];
        const auto& b = tiles_[n];
        // Only tiles whose look changed are painted again.
        if (a.state != b.state || a.percent != b.percent || a.elapsed != b.elapsed || a.passCount != b.passCount ||
            a.jobCount != b.jobCount) {
            tiles_[n] = a;
            update(TileRect(static_cast<int>(n)));
        }
    }
}

QRect BenchView::TileRect(int n) const {
    const int w = std::max(1, (width() - kGap) / kColumns), h = std::max(1, (height() - kGap) / kRows);
    return {kGap + (n % kColumns) * w, kGap + (n / kColumns) * h, w - kGap, h - kGap};
}

BenchView::TileLayout BenchView::Layout(int n) const {
    // All tiles have one size, so the first one's layout, moved, serves them all; it is
    // worked out again only when the widget's size changes.
    if (layoutSize_ != size()) {
        layoutSize_ = size();
        layout_ = FirstTileLayout();
    }
    TileLayout l = layout_;
    const QPoint by = TileRect(n).topLeft() - layout_.tile.topLeft();
    for (QRect* r : {&l.tile, &l.number, &l.state, &l.stateText, &l.elapsed, &l.counts}) r->translate(by);
    return l;
}

BenchView::TileLayout BenchView::FirstTileLayout() const {
    TileLayout l;
    l.tile = TileRect(0);
    const QRect inner = l.tile.adjusted(10, 4, -10, -4);
    const int top = inner.height() * 30 / 100, bottom = inner.height() * 24 / 100;
    l.number = QRect(inner.left(), inner.top(), inner.width() / 2, top);
    l.counts = QRect(inner.left() + inner.width() / 2, inner.top(), inner.width() - inner.width() / 2, top);
    l.state = QRect(inner.left(), inner.top() + top, inner.width(), inner.height() - top - bottom);
    l.elapsed = QRect(inner.left(), inner.bottom() - bottom + 1, inner.width(), bottom);
    l.stateText = l.state.adjusted(l.state.height() + 8, 0, 0, 0);  // its shape, a square, goes left of it
    // Faces fitted to the widest texts each place can show, so that all tiles look alike.
    l.numberFont = Fitted(QStringLiteral("16"), l.number.size(), true);
    l.stateFont = Fitted(QStringLiteral("100%"), l.stateText.size(), true);
    for (TileState state :
         {TileState::IDLE, TileState::WAITING, TileState::PASS, TileState::FAIL, TileState::INTERRUPTED}) {
        const QString word = StateWord(state, 0);
        const QFont f = Fitted(word, l.stateText.size(), true);
        if (f.pixelSize() < l.stateFont.pixelSize()) l.stateFont = f;
    }
    const QFont counts = Fitted(QStringLiteral("888/888"), l.counts.size() * 85 / 100, false);
    const QFont elapsed = Fitted(QStringLiteral("00:00:00"), l.elapsed.size(), false);
    l.smallFont = counts.pixelSize() < elapsed.pixelSize() ? counts : elapsed;
    return l;
}

QString BenchView::StateWord(TileState state, int percent) {
    switch (state) {
        case TileState::PASS: return QStringLiteral("PASS");
        case TileState::FAIL: return QStringLiteral("FAIL");
        case TileState::FLASHING: return QStringLiteral("%1%").arg(percent);
        case TileState::WAITING: return QStringLiteral("WAIT");
        case TileState::INTERRUPTED: return QStringLiteral("STOP");
        case TileState::IDLE: return QStringLiteral("IDLE");
        case TileState::ABSENT: break;
    }
    return {};
}

int BenchView::TileAt(QPoint at) const {
    for (int n = 0; n < app::kSlotCount; ++n)
        if (TileRect(n).contains(at)) return n;
    return -1;
}

std::array<QString, 4> BenchView::Texts(int n) const {
    const app::BenchTile& t = tiles_[static_cast<std::size_t>(n)];
    const QString state = StateWord(t.state, t.percent);
    const QString counts = t.jobCount ? QStringLiteral("%1/%2").arg(t.passCount).arg(t.jobCount) : QString();
    return {QStringLiteral("%1").arg(t.slot, 2, 10, QLatin1Char('0')), state, QString::fromUtf8(t.elapsed.c_str()),
            counts};
}

void BenchView::paintEvent(QPaintEvent* event) {
    QPainter p(this);
    p.fillRect(event->rect(), QColor(247, 255, 252));
    p.setRenderHint(QPainter::Antialiasing);
    for (int n = 0; n < app::kSlotCount; ++n)
        if (event->region().intersects(TileRect(n))) PaintTile(p, n);
}

void BenchView::PaintTile(QPainter& p, int n) const {
    const app::BenchTile& t = tiles_[static_cast<std::size_t>(n)];
    const TileLayout l = Layout(n);
    const auto texts = Texts(n);
    const QColor ink = Ink(t.state);
    p.save();
    p.setPen(Qt::NoPen);
    p.setBrush(Background(t.state));
    p.drawRoundedRect(l.tile, 8, 8);
    if (t.state == TileState::FAIL) {
        // Stripes: a failure is told apart without seeing its colour.
        p.setClipRect(l.tile.adjusted(2, 2, -2, -2));
        p.setPen(QPen(QColor(255, 255, 255, 40), 10));
        for (int x = l.tile.left() - l.tile.height(); x < l.tile.right(); x += 28)
            p.drawLine(x, l.tile.bottom(), x + l.tile.height(), l.tile.top());
        p.setClipping(false);
    }
    if (t.state == TileState::FLASHING) {
        const QRect track(l.tile.left() + 10, l.elapsed.top() - 10, l.tile.width() - 20, 8);
        p.fillRect(track, QColor(255, 255, 255, 60));
        p.fillRect(QRect(track.left(), track.top(), track.width() * t.percent / 100, track.height()), kBarColour);
    }
    p.setPen(ink);
    p.setFont(l.numberFont);
    p.drawText(l.number, Qt::AlignLeft | Qt::AlignVCenter, texts[0]);
    p.setFont(l.smallFont);
    p.drawText(l.counts, Qt::AlignRight | Qt::AlignVCenter, texts[3]);
    p.drawText(l.elapsed, Qt::AlignLeft | Qt::AlignVCenter, texts[2]);
    const int mark = l.state.height() * 7 / 10;
    const QRectF shape(l.state.left(), l.state.center().y() - mark / 2.0, mark, mark);
    p.setPen(QPen(ink, std::max(3, mark / 7), Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    switch (t.state) {
        case TileState::PASS: DrawTick(p, shape); break;
        case TileState::FAIL: DrawCross(p, shape); break;
        case TileState::FLASHING: DrawArrow(p, shape); break;
        case TileState::WAITING: DrawHourglass(p, shape); break;
        case TileState::INTERRUPTED: DrawStop(p, shape); break;
        case TileState::IDLE: DrawRing(p, shape); break;
        case TileState::ABSENT: break;
    }
    p.setPen(ink);
    p.setFont(l.stateFont);
    p.drawText(l.stateText, Qt::AlignLeft | Qt::AlignVCenter, texts[1]);
    p.restore();
}

}  // namespace quorvel::widgets
