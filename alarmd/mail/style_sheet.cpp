#include "alarmd/mail/style_sheet.h"

#include <algorithm>

namespace {

// clang-format off
constexpr std::string_view kText = R"(<html><style type="text/css">body, html  { height: 100%; }
/* Every element begins without a look of its own, so that all mail readers show the same. */
html, body, div, section, article, header, footer, nav, aside, main, figure, figcaption,
h1, h2, h3, h4, h5, h6, p, blockquote, pre, address, hr, center,
a, abbr, acronym, b, big, cite, code, del, dfn, em, font, i, img, ins, kbd, mark, q, s, samp,
small, span, strike, strong, sub, sup, tt, u, var, time, applet, iframe, object,
dl, dt, dd, ol, ul, li, fieldset, form, label, legend, input, button, select, textarea,
table, caption, colgroup, col, thead, tbody, tfoot, tr, th, td {
    margin: 0;
    padding: 0;
    border: 0;
    outline: 0;
    font-size: 100%;
    vertical-align: baseline;
    background: transparent;
}
/* The page itself */
body {
    line-height: 1;
}
ol, ul {
    list-style: none;
}
blockquote, q {
    quotes: none;
}
sub, sup {
    line-height: 0;
}
img {
    max-width: 100%;
}
/* Links */
a:link, a:visited {
    color: #666;
    font-weight: bold;
    text-decoration: none;
}
a:hover, a:active {
    color: #bd5a35;
    text-decoration: underline;
}
/* Alarm table: one frame around all rows, thin lines between the cells */
table {
    margin: 20px;
    font-family: Arial, Helvetica, sans-serif;
    font-size: 12px;
    color: #666;
    text-shadow: 1px 1px 0 #fff;
    background: #eaebec;
    border: 1px solid #ccc;
    border-collapse: separate;
    border-spacing: 0;
    -moz-border-radius: 3px;
    -webkit-border-radius: 3px;
    border-radius: 3px;
    -webkit-box-shadow: 0 1px 2px #d1d1d1;
    box-shadow: 0 1px 2px #d1d1d1;
}
table caption {
    padding: 0 0 10px 0;
    font-weight: bold;
    text-align: left;
}
/* Column heads */
table th {
    padding: 21px 25px 22px 25px;
    font-weight: bold;
    border-top: 1px solid #fafafa;
    border-bottom: 1px solid #e0e0e0;
    background: #ededed;
    background: -moz-linear-gradient(top, #ededed, #ebebeb);
    background: -webkit-linear-gradient(top, #ededed, #ebebeb);
    background: linear-gradient(to bottom, #ededed, #ebebeb);
}
table th:first-child {
    text-align: left;
    padding-left: 20px;
}
table tr:first-child th:first-child {
    border-top-left-radius: 3px;
}
table tr:first-child th:last-child {
    border-top-right-radius: 3px;
}
/* Rows: dark text on light ground, readable in print too */
table tr {
    text-align: center;
    padding-left: 20px;
}
table tr td {
    padding: 18px;
    border-top: 1px solid #fff;
    border-bottom: 1px solid #e0e0e0;
    border-left: 1px solid #e0e0e0;
    line-height: 1.3;
    white-space: normal;
    background: #fafafa;
}
table tr td:first-child {
    text-align: left;
    padding-left: 20px;
    border-left: 0;
}
/* Every other row, and the row under the pointer */
table tr.even td {
    background: #f6f6f6;
}
table tr:last-child td {
    border-bottom: 0;
}
table tr:last-child td:first-child {
    border-bottom-left-radius: 3px;
}
table tr:last-child td:last-child {
    border-bottom-right-radius: 3px;
}
table tr:hover td {
    background: #f2f2f2;
}
/* On paper: no ground and no shadows, for they only cost ink */
@media print {
    table {
        background: #fff;
        text-shadow: none;
        -webkit-box-shadow: none;
        box-shadow: none;
    }
    table tr td {
        border-bottom-color: #ccc;
    }
}
</style><title></title><body>)";
// clang-format on

constexpr size_t longestLine(std::string_view text) {
    size_t longest = 0;
    size_t start = 0;
    for (size_t end = 0; end <= text.size(); ++end) {
        if (end < text.size() && text[end] != '\n') continue;
        longest = std::max(longest, end - start);
        start = end + 1;
    }
    return longest;
}

static_assert(kText.size() == kMailHeadLength);
static_assert(longestLine(kText) <= 900);

}  // namespace

constinit const std::string_view kMailHead = kText;
