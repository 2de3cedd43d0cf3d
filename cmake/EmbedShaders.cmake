# Writes OUT, a header that holds each file of SOURCES (a ;-list) as a raw string literal
# named after the file: LabelPainter.frag becomes kShader_LabelPainter_frag.
set(text "// Generated from the files in shaders/; do not edit.\n#pragma once\n\n")
foreach(source IN LISTS SOURCES)
  get_filename_component(name "${source}" NAME)
  string(MAKE_C_IDENTIFIER "${name}" id)
  file(READ "${source}" body)
  string(APPEND text "inline constexpr char kShader_${id}[] = R\"MSEGSRC(${body})MSEGSRC\";\n\n")
endforeach()
file(WRITE "${OUT}.tmp" "${text}")
file(COPY_FILE "${OUT}.tmp" "${OUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUT}.tmp")
