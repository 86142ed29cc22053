# Makes a source file (SOURCE) of a page (PAGE): cmake -D PAGE=... -D SOURCE=... -P EmbedPage.cmake
file(READ "${PAGE}" page)
file(WRITE "${SOURCE}" "#include \"PageTemplate.h\"

const std::string_view zav::pyxctl::kPageTemplate = R\"page(${page})page\";
")
