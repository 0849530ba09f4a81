add_test(NAME ExportedSymbols.OnlyTheEighteenFunctions
  COMMAND ${CMAKE_COMMAND} -DLIBRARY=$<TARGET_FILE:QuorvikBodyTracking> -P ${PROJECT_SOURCE_DIR}/cmake/check_exports.cmake)
set_tests_properties(ExportedSymbols.OnlyTheEighteenFunctions PROPERTIES LABELS api)
