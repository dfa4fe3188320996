# The barcode's text handling is internal: built in to test it directly.
target_sources(barcode_test PRIVATE ${PROJECT_SOURCE_DIR}/system/barcode_parser.cpp)
