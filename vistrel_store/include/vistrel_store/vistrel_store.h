// The whole exported interface of the vistrel store library.
#ifndef VISTREL_STORE_VISTREL_STORE_H_
#define VISTREL_STORE_VISTREL_STORE_H_

#include "vistrel_store/auth.h"
#include "vistrel_store/book.h"
#include "vistrel_store/book_file.h"
#include "vistrel_store/book_status.h"
#include "vistrel_store/cart.h"
#include "vistrel_store/chek_result.h"
#include "vistrel_store/convert_date_time.h"
#include "vistrel_store/export.h"
#include "vistrel_store/language.h"
#include "vistrel_store/make_format.h"
#include "vistrel_store/order.h"
#include "vistrel_store/server_api.h"
#include "vistrel_store/store_manager.h"
#include "vistrel_store/switchboard_config.h"

#endif  // VISTREL_STORE_VISTREL_STORE_H_
