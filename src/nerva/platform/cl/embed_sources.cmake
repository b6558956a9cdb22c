# Writes OUTPUT: a C++ file defining nerva::cl::RegisterClKernelSource, which
# adds every file of LIST_FILE to the SourceManager as a raw string literal.
file(READ ${LIST_FILE} files)
set(body "")
set(index 0)
foreach(path ${files})
  file(RELATIVE_PATH name ${KERNEL_DIR} ${path})
  # A source is named by its file name alone (family folders and "device/"
  # dropped); the tensor-core family keeps its "tensorcore/" prefix.
  get_filename_component(base ${name} NAME)
  if(name MATCHES "^tensorcore/")
    set(name "tensorcore/${base}")
  else()
    set(name "${base}")
  endif()
  file(READ ${path} text)
  # Raw strings are limited in length by some compilers: emit 8 KiB pieces.
  string(LENGTH "${text}" length)
  set(pieces "")
  set(offset 0)
  while(offset LESS length)
    string(SUBSTRING "${text}" ${offset} 8192 piece)
    string(APPEND pieces "R\"nerva_cl(${piece})nerva_cl\"\n")
    math(EXPR offset "${offset} + 8192")
  endwhile()
  if(pieces STREQUAL "")
    set(pieces "\"\"")
  endif()
  string(APPEND body "const char kSource${index}[] =\n${pieces};\n")
  string(APPEND registrations "  manager.AddClSource(\"${name}\", kSource${index});\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE ${OUTPUT}.tmp
  "// Generated from the device programs under platform/cl/kernel; do not edit.\n"
  "#include \"nerva/platform/cl/program.h\"\n\n"
  "namespace nerva {\nnamespace cl {\nnamespace {\n${body}}  // namespace\n\n"
  "void RegisterClKernelSource(SourceManager& manager) {\n${registrations}}\n\n"
  "}  // namespace cl\n}  // namespace nerva\n")
file(COPY_FILE ${OUTPUT}.tmp ${OUTPUT} ONLY_IF_DIFFERENT)
