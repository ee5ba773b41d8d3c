# Writes OUT, a C++ file defining panel_page_html as the text of IN.
file(READ ${IN} page)
file(WRITE ${OUT} "// Generated from page.html: do not edit.\n#include \"panel/page.h\"\n"
  "const char* const panel_page_html = R\"PANEL_PAGE(${page})PANEL_PAGE\";\n")
