# Gives KXAMAZON_SECRETS_HEADER: the maker's own header, or one that kxkeygen makes once for each build folder.
if(KXAMAZON_SECRETS)
    get_filename_component(KXAMAZON_SECRETS_HEADER "${KXAMAZON_SECRETS}" ABSOLUTE BASE_DIR "${CMAKE_SOURCE_DIR}")
    return()
endif()

if(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
    message(FATAL_ERROR "kxkeygen cannot run here: set -DKXAMAZON_SECRETS=FILE")
endif()

set(KXAMAZON_SECRETS_HEADER ${CMAKE_BINARY_DIR}/secrets/kx_secrets.h)
set(credential_file ${CMAKE_BINARY_DIR}/secrets/client_credential.txt)
file(CONFIGURE OUTPUT ${credential_file} CONTENT "@KXAMAZON_CLIENT_ID@:@KXAMAZON_CLIENT_SECRET@" @ONLY)
# kxkeygen is no file dependency: building it anew must not change the keys that sealed values rely on.
add_custom_command(
    OUTPUT ${KXAMAZON_SECRETS_HEADER}
    COMMAND kxkeygen < ${credential_file} > ${KXAMAZON_SECRETS_HEADER}.new
    COMMAND ${CMAKE_COMMAND} -E rename ${KXAMAZON_SECRETS_HEADER}.new ${KXAMAZON_SECRETS_HEADER}
    DEPENDS ${credential_file}
    COMMENT "Making the key pairs of this build folder"
    VERBATIM)
