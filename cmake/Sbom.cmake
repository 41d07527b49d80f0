# nvrhttpcurl.spdx in the build folder: which libcurl and cJSON the library is built with. The time
# follows SOURCE_DATE_EPOCH.
string(TIMESTAMP SBOM_CREATED "%Y-%m-%dT%H:%M:%SZ" UTC)
string(
  UUID
  SBOM_UUID
  NAMESPACE
  6ba7b811-9dad-11d1-80b4-00c04fd430c8
  NAME
  "nvrhttpcurl ${PROJECT_VERSION} libcurl ${CURL_VERSION_STRING} cjson ${CJSON_VERSION} ${SBOM_CREATED}"
  TYPE
  SHA1)
configure_file(cmake/nvrhttpcurl.spdx.in ${PROJECT_BINARY_DIR}/nvrhttpcurl.spdx @ONLY)
