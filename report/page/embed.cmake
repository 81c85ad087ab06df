# Writes a C++ source that holds the page's parts as strings:
#   cmake -DOUTPUT=FILE -P embed.cmake
# The scripts follow one another in this order, as one.
set(scripts dom data search grouping stack_view icicle_tree icicle cause groups raw_log incident overview page)

function(append_text name)
  set(text "")
  foreach(file IN LISTS ARGN)
    file(READ "${CMAKE_CURRENT_LIST_DIR}/${file}" part)
    string(APPEND text "${part}")
  endforeach()
  file(APPEND "${OUTPUT}" "const char* const ${name} = R\"page_text(${text})page_text\";\n\n")
endfunction()

list(TRANSFORM scripts APPEND .js)
file(WRITE "${OUTPUT}" "#include \"page/page_text.h\"\n\nnamespace report {\n\n")
append_text(kPageHtml page.html)
append_text(kPageStyle page.css)
append_text(kPageScript ${scripts})
file(APPEND "${OUTPUT}" "}  // namespace report\n")
