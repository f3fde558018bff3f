// What a module, and whoever calls modules, needs: one include for all of it.
#pragma once

#include <binding/kxfunctor.hpp>
#include <binding/kxfunctorconvert.hpp>
#include <binding/kxproxycall.hpp>
#include <binding/kxpublish.hpp>
#include <binding/kxsignature.hpp>
#include <ka/log.hpp>
#include <ka/os.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxbrokermanager.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxcommon/kxproxy.hpp>
#include <kxerror/kxerror.hpp>
#include <kxproxies/kxmemoryproxy.hpp>
#include <kxthread/kxcriticalsection.hpp>
#include <kxthread/kxmutex.hpp>
#include <kxvalue/kxrows.hpp>
#include <kxvalue/kxvalue.hpp>
#include <rttools/kxtools.hpp>
