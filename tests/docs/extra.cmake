target_compile_definitions(docs_tests PRIVATE QVDBASE_DOCS="${PROJECT_SOURCE_DIR}/docs")
