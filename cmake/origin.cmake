# SPDX-License-Identifier: GPL-2.0-or-later
# The sign-in posts a password to the service's origin: a build talks to it over TLS only, but for
# a development service on this machine. Included by the project; on its own, for the tests:
#   cmake -DTESSIVANE_SERVICE_ORIGIN=ORIGIN -P cmake/origin.cmake
if(NOT TESSIVANE_SERVICE_ORIGIN MATCHES "^https://"
   AND NOT TESSIVANE_SERVICE_ORIGIN MATCHES
       "^http://(localhost|127\\.[0-9]+\\.[0-9]+\\.[0-9]+|\\[::1\\])(:[0-9]+)?$")
  message(FATAL_ERROR "TESSIVANE_SERVICE_ORIGIN must be https://, or http:// to this machine "
    "(localhost, 127.0.0.0/8 or [::1]) for a development service: not ${TESSIVANE_SERVICE_ORIGIN}")
endif()
