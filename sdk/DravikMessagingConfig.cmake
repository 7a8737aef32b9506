# find_package(DravikMessaging 1): the imported target DravikMessaging::messaging
# (libdravik-messaging.so.1, its headers under include/dravik, C++17).
include("${CMAKE_CURRENT_LIST_DIR}/DravikMessagingTargets.cmake")
