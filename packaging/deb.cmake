# The Debian package: cmake --build build/release && (cd build/release && cpack -G DEB)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vrox)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The vrox authors <vrox@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "network proxy daemon with rules, tunnels, DNS and a TUN device")
set(CPACK_PACKAGE_DESCRIPTION "vrox takes the outgoing traffic of a device (connections that the firewall
redirects, SOCKS5 clients, the packets of a TUN device, DNS queries, UDP
datagrams), classifies it by rules and sends it on: directly, through HTTP
or SOCKS5 proxies, rewritten or enciphered where the rules say so, within
quotas and speed limits.")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
# Programs and files go where they will be, so that the units can name them.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://example.org/vrox")
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser, init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "nftables | iptables, iproute2")
if(NOT VROX_STATIC)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(here ${PROJECT_SOURCE_DIR}/packaging/debian)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${here}/postinst ${here}/prerm ${here}/postrm ${here}/conffiles)
set(CPACK_VROX_SOURCE ${PROJECT_SOURCE_DIR})
set(CPACK_PRE_BUILD_SCRIPTS ${here}/stage.cmake)
include(CPack)
