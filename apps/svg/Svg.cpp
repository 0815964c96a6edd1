// SPDX-License-Identifier: MIT
#include "Svg.h"
#include "util/number_text.h"
#include <cmath>
#include <cstdarg>

Svg::Svg(FILE* out, double width, double height, int font_size) : _out(out) {
    put("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" ", width,
        height, width, height);
    put("font-family=\"sans-serif\" font-size=\"%d\">\n", font_size);
    put("<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n");
}

Svg::~Svg() {
    end_line();
    put("</svg>\n");
}

void Svg::put(const char* fmt, ...) {
    std::string text(256, '\0');
    for (bool whole = false; !whole;) {
        va_list args;
        va_start(args, fmt);
        const auto length = static_cast<size_t>(Util::vformat(&text[0], text.size() + 1, fmt, args));
        va_end(args);
        whole = length <= text.size();
        text.resize(length);
    }
    fputs(text.c_str(), _out);
}

void Svg::text(double x, double y, const char* attributes, const std::string& words) {
    put("<text x=\"%.1f\" y=\"%.1f\" %s>", x, y, attributes);
    fputs(escaped(words).c_str(), _out);
    fputs("</text>\n", _out);
}

void Svg::line_to(double x, double y, const std::string& attributes) {
    if (!_in_line) put("<polyline fill=\"none\" %s points=\"", attributes.c_str());
    _in_line = true;
    put("%.1f,%.1f ", x, y);
}

void Svg::end_line() {
    if (_in_line) fputs("\"/>\n", _out);
    _in_line = false;
}

std::string Svg::escaped(const std::string& text) {
    std::string all;
    for (const char c : text) {
        if (c == '<')
            all += "&lt;";
        else if (c == '&')
            all += "&amp;";
        else if (c == '"')
            all += "&quot;";
        else
            all += c < 0x20 || c > 0x7E ? '_' : c;
    }
    return all;
}

double Svg::step(double wanted) {
    const double power = pow(10, floor(log10(wanted)));
    return (wanted >= 5 * power ? 5 : wanted >= 2 * power ? 2 : 1) * power;
}
