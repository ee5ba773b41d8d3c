#pragma once

// The panel's one page: HTML, its style and its script, built in from
// tools/panel/page.html. "@SECRET@" and "@TOKEN@" stand for the run's secret
// and token.
extern const char* const panel_page_html;
