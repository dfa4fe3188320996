# The barcode's text handling is internal to the library: built in here so
# the raw barcode can be handed to it directly.
target_sources(barcode_test PRIVATE ${PROJECT_SOURCE_DIR}/system/barcode_parser.cpp)
