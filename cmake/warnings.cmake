# Warning sets: every target gets -Wall -Wextra; the driver also -Werror.
add_library(mme_warnings INTERFACE)
target_compile_options(mme_warnings INTERFACE -Wall -Wextra)
add_library(mme_driver_warnings INTERFACE)
target_compile_options(mme_driver_warnings INTERFACE -Wall -Wextra -Werror)
