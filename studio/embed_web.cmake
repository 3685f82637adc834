# Writes OUT, a C++ source that holds the page's files as raw string literals. Run at build time
# whenever a file under web/ changes.
set(code "// Generated from studio/web/ by studio/embed_web.cmake; edit those files instead.\n")
string(APPEND code "#include \"studio/web_assets.h\"\n\nnamespace studio {\n\n")
string(APPEND code "const std::vector<WebAsset>& WebAssets() {\n    static const std::vector<WebAsset> assets = {\n")
foreach(entry "/|index.html|text/html"
              "/studio.css|studio.css|text/css"
              "/studio.js|studio.js|text/javascript")
  string(REPLACE "|" ";" parts "${entry}")
  list(GET parts 0 url)
  list(GET parts 1 file)
  list(GET parts 2 type)
  file(READ "${WEB_DIR}/${file}" body)
  string(FIND "${body}" ")WEB\"" clash)
  if(NOT clash EQUAL -1)
    message(FATAL_ERROR "${file} holds the raw string's closing sequence )WEB\"")
  endif()
  string(APPEND code "        {\"${url}\", \"${type}\", R\"WEB(${body})WEB\"},\n")
endforeach()
string(APPEND code "    };\n    return assets;\n}\n\n}  // namespace studio\n")
file(WRITE "${OUT}.new" "${code}")
file(COPY_FILE "${OUT}.new" "${OUT}" ONLY_IF_DIFFERENT)
