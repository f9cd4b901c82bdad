#include "hosttelemetry.h"

using telemetry::HostTelemetry;

HX_MODULE(HostTelemetry)
