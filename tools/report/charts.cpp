#include "tools/report/charts.h"

#include "tools/report/bars.h"

#include <algorithm>
#include <sstream>

namespace report {

namespace {

// Text is monospace 12px, whose glyphs are at most 8px wide.
constexpr uint64_t CHAR_PX = 8;

// Column chart: the plot's height, a column's width and its bar's, the room above the plot
// (half a label over the top gridline) and below it (hour labels and date marks).
constexpr uint64_t PLOT_PX = 150;
constexpr uint64_t COLUMN_PX = 20;
constexpr uint64_t COLUMN_BAR_PX = 14;
constexpr uint64_t PLOT_TOP_PX = 10;
constexpr uint64_t LABEL_GAP_PX = 6;
constexpr uint64_t MAX_STEPS = 5;

// Gauge: the track's length and height, the room for the tick labels above and below it,
// and the margin that keeps a label centred on the track's last tick inside the picture.
constexpr uint64_t GAUGE_TRACK_PX = 440;
constexpr uint64_t GAUGE_BAR_PX = 18;
constexpr uint64_t GAUGE_TOP_PX = 16;
constexpr uint64_t GAUGE_MARGIN_PX = 30;
constexpr uint64_t GAUGE_HEIGHT_PX = GAUGE_TOP_PX + GAUGE_BAR_PX + 18;

std::string text_element(uint64_t x, uint64_t y, const char* anchor, const std::string& text)
{
    std::ostringstream out;
    out << "<text x=\"" << x << "\" y=\"" << y << "\"";
    if (anchor)
        out << " text-anchor=\"" << anchor << "\"";
    out << ">" << escape_html(text) << "</text>";
    return out.str();
}

std::string svg_open(uint64_t width, uint64_t height, const char* cls, const std::string& title)
{
    std::ostringstream out;
    out << "<svg class=\"" << cls << "\" role=\"img\" aria-label=\"" << escape_html(title) << "\" width=\"" << width
        << "\" height=\"" << height << "\" viewBox=\"0 0 " << width << ' ' << height << "\">\n<title>"
        << escape_html(title) << "</title>\n";
    return out.str();
}

uint64_t saturating_add(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

// ceil(value / step) for step > 0.
uint64_t steps_for(uint64_t value, uint64_t step) { return value == 0 ? 0 : (value - 1) / step + 1; }

} // namespace

std::string escape_html(const std::string& text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out += c;
        }
    }
    return out;
}

uint64_t permille_of(uint64_t value, uint64_t whole)
{
    if (whole == 0)
        return 0;
    const uint64_t whole_part = value / whole;
    const uint64_t thousandths = scale_to(value % whole, whole, 1000);
    if (whole_part > (UINT64_MAX - thousandths) / 1000)
        return UINT64_MAX;
    return whole_part * 1000 + thousandths;
}

Axis round_axis(uint64_t largest, uint64_t unit, bool one_unit)
{
    if (unit == 0)
        unit = 1;
    if (largest == 0)
        return {unit, 1};
    static const uint64_t MULTIPLES[] = {1, 2, 5, 10, 20, 50, 100, 200, 500};
    if (!one_unit) {
        uint64_t base = 1;
        for (int k = 0; k <= 4; ++k, base <<= 10) {
            for (uint64_t m : MULTIPLES) {
                const uint64_t step = m * base;
                if (step % unit != 0)
                    continue;
                const uint64_t steps = steps_for(largest, step);
                if (steps <= MAX_STEPS && steps * m <= 1000)
                    return {step, steps};
            }
        }
    }
    // In unit: 1, 2, 5, 10, 20, 50, ... of it (and scaled figures beyond 1000 TiB).
    const uint64_t start = one_unit ? unit : uint64_t{1} << 40;
    for (uint64_t power = 1; power <= UINT64_MAX / 10 / start; power *= 10) {
        for (uint64_t m : {1, 2, 5}) {
            const uint64_t step = m * power * start;
            const uint64_t steps = steps_for(largest, step);
            if (steps <= MAX_STEPS && step <= UINT64_MAX / steps)
                return {step, steps};
        }
    }
    return {largest, 1};
}

std::string column_chart_svg(const std::string& title, const std::vector<Column>& columns, const Axis& axis,
                             const AmountText& amount)
{
    const uint64_t top = std::max<uint64_t>(axis.top(), 1);
    std::vector<std::string> labels;
    size_t label_chars = 0;
    for (uint64_t i = 0; i <= axis.steps; ++i) {
        labels.push_back(amount(axis.step * i));
        label_chars = std::max(label_chars, labels.back().size());
    }
    // Room for at least 8 characters ("1000 KiB", "99.0 MiB") keeps the plots of scaled
    // charts one under the other.
    const uint64_t left = std::max<size_t>(label_chars, 8) * CHAR_PX + 2 * LABEL_GAP_PX;
    const uint64_t base = PLOT_TOP_PX + PLOT_PX;
    const uint64_t plot_right = left + columns.size() * COLUMN_PX;
    const uint64_t label_y = base + 16;
    const uint64_t mark_y = base + 32;

    // A date mark is drawn where it does not run into the next one.
    std::vector<bool> draw_mark(columns.size(), false);
    uint64_t width = plot_right + LABEL_GAP_PX;
    for (size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].mark.empty())
            continue;
        const uint64_t mark_px = columns[i].mark.size() * CHAR_PX + LABEL_GAP_PX;
        size_t next = i + 1;
        while (next < columns.size() && columns[next].mark.empty())
            ++next;
        draw_mark[i] = next == columns.size() || (next - i) * COLUMN_PX >= mark_px;
        if (draw_mark[i])
            width = std::max(width, left + i * COLUMN_PX + mark_px);
    }
    const uint64_t height = mark_y + 8;

    std::ostringstream out;
    out << svg_open(width, height, "columns", title);
    out << "<desc>";
    for (size_t i = 0; i < columns.size(); ++i) {
        const Column& c = columns[i];
        out << (i ? "; " : "") << escape_html(c.name) << ": ";
        if (c.known)
            out << escape_html(amount(c.first) + " + " + amount(c.second) + " = " +
                               amount(saturating_add(c.first, c.second)));
        else
            out << "not recorded";
    }
    out << "</desc>\n";

    // Gridlines with their amounts, the axis' foot last so that it is drawn over the rest.
    for (uint64_t i = axis.steps + 1; i-- > 0;) {
        const uint64_t y = base - scale_to(axis.step * i, top, PLOT_PX);
        out << "<line class=\"" << (i == 0 ? "axis" : "grid") << "\" x1=\"" << left - LABEL_GAP_PX / 2 << "\" y1=\""
            << y << "\" x2=\"" << plot_right << "\" y2=\"" << y << "\"></line>"
            << text_element(left - LABEL_GAP_PX, y + 4, "end", labels[static_cast<size_t>(i)]) << '\n';
    }

    for (size_t i = 0; i < columns.size(); ++i) {
        const Column& c = columns[i];
        const uint64_t x = left + i * COLUMN_PX;
        out << "<g>";
        if (c.known) {
            const BarParts parts = bar_parts(c.first, c.second, top, PLOT_PX);
            const uint64_t bar_x = x + (COLUMN_PX - COLUMN_BAR_PX) / 2;
            out << "<title>" << escape_html(c.name) << ": counter 1 " << escape_html(amount(c.first))
                << ", counter 2 " << escape_html(amount(c.second)) << "</title>";
            if (parts.first > 0)
                out << "<rect class=\"c1\" x=\"" << bar_x << "\" y=\"" << base - parts.first << "\" width=\""
                    << COLUMN_BAR_PX << "\" height=\"" << parts.first << "\"></rect>";
            if (parts.second > 0)
                out << "<rect class=\"c2\" x=\"" << bar_x << "\" y=\"" << base - parts.first - parts.second
                    << "\" width=\"" << COLUMN_BAR_PX << "\" height=\"" << parts.second << "\"></rect>";
        }
        out << text_element(x + COLUMN_PX / 2, label_y, "middle", c.label);
        if (draw_mark[i])
            out << text_element(x, mark_y, nullptr, c.mark);
        out << "</g>\n";
    }
    out << "</svg>\n";
    return out.str();
}

std::string gauge_svg(const Gauge& g)
{
    const uint64_t allowance = std::max<uint64_t>(g.allowance, 1);
    const uint64_t twice = allowance > UINT64_MAX / 2 ? UINT64_MAX : allowance * 2;
    const uint64_t reach = g.projected_known ? std::max(g.used, g.projected) : g.used;
    // The gauge's scale: the allowance, or as far as the usage goes beyond it, at most twice it.
    const uint64_t scale = std::min(std::max(allowance, reach), twice);
    const uint64_t x0 = GAUGE_MARGIN_PX;
    const uint64_t y0 = GAUGE_TOP_PX;
    auto px = [&](uint64_t bytes) { return scale_to(std::min(bytes, scale), scale, GAUGE_TRACK_PX); };

    const uint64_t width = GAUGE_TRACK_PX + 2 * GAUGE_MARGIN_PX;
    std::ostringstream out;
    out << svg_open(width, GAUGE_HEIGHT_PX, "gauge", g.title);
    const uint64_t allowance_px = px(allowance);
    out << "<rect class=\"track\" x=\"" << x0 << "\" y=\"" << y0 << "\" width=\"" << allowance_px << "\" height=\""
        << GAUGE_BAR_PX << "\"></rect>";
    if (allowance_px < GAUGE_TRACK_PX)
        out << "<rect class=\"beyond\" x=\"" << x0 + allowance_px << "\" y=\"" << y0 << "\" width=\""
            << GAUGE_TRACK_PX - allowance_px << "\" height=\"" << GAUGE_BAR_PX << "\"></rect>";
    const uint64_t used_px = px(g.used);
    if (g.projected_known && g.projected > g.used) {
        const uint64_t projected_px = px(g.projected);
        if (projected_px > used_px)
            out << "<rect class=\"" << (g.over ? "proj-over" : "proj") << "\" x=\"" << x0 + used_px << "\" y=\""
                << y0 + 3 << "\" width=\"" << projected_px - used_px << "\" height=\"" << GAUGE_BAR_PX - 6
                << "\"></rect>";
    }
    if (used_px > 0)
        out << "<rect class=\"" << (g.over ? "over" : "ok") << "\" x=\"" << x0 << "\" y=\"" << y0 << "\" width=\""
            << used_px << "\" height=\"" << GAUGE_BAR_PX << "\"></rect>";
    if (reach > scale) {
        // Beyond the gauge's end: an arrow past it.
        const uint64_t x = x0 + GAUGE_TRACK_PX;
        out << "<polygon class=\"" << (g.projected > g.used ? (g.over ? "proj-over" : "proj") : g.over ? "over" : "ok")
            << " arrow\" points=\"" << x + 2 << ',' << y0 << ' ' << x + 12 << ',' << y0 + GAUGE_BAR_PX / 2 << ' '
            << x + 2 << ',' << y0 + GAUGE_BAR_PX << "\"></polygon>";
    }
    out << '\n';
    // Tick marks across the track, their labels alternately below and above it so that the
    // close 95 % and 99.5 % labels do not run into each other.
    for (size_t i = 0; i < g.ticks.size(); ++i) {
        const uint64_t x = x0 + px(g.ticks[i].bytes);
        const bool below = i % 2 == 0;
        out << "<line class=\"tick\" x1=\"" << x << "\" y1=\"" << (below ? y0 - 3 : y0 - 5) << "\" x2=\"" << x
            << "\" y2=\"" << (below ? y0 + GAUGE_BAR_PX + 5 : y0 + GAUGE_BAR_PX + 3) << "\"></line>"
            << text_element(x, below ? y0 + GAUGE_BAR_PX + 16 : y0 - 6, "middle", g.ticks[i].label) << '\n';
    }
    out << "</svg>\n";
    return out.str();
}

} // namespace report
