# SPDX-License-Identifier: MIT

# vcpkg port of the library, without the command. The address and the checksum are placeholders.
vcpkg_download_distfile(archive
  URLS "https://example.org/runeflow-core-${VERSION}.tar.gz"
  FILENAME "runeflow-core-${VERSION}.tar.gz"
  SHA512 0)
vcpkg_extract_source_archive(SOURCE_PATH ARCHIVE "${archive}")

# vcpkg sets BUILD_SHARED_LIBS by the triplet.
vcpkg_cmake_configure(SOURCE_PATH "${SOURCE_PATH}"
  OPTIONS -DRUNEFLOW_BUILD_CLI=OFF -DRUNEFLOW_BUILD_TESTS=OFF -DRUNEFLOW_BUILD_EXAMPLES=OFF)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME RuneflowCore CONFIG_PATH lib/cmake/RuneflowCore)
vcpkg_fixup_pkgconfig()

file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share"
  "${CURRENT_PACKAGES_DIR}/share/doc")
vcpkg_install_copyright(FILE_LIST "${SOURCE_PATH}/LICENSE")
