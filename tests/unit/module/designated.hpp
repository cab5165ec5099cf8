// The suites write world records with designated initializers that name only
// the fields a case cares about, the rest keeping their defaults. g++ 12 warns
// of every member without a default initializer left out that way (an
// interface's description), so that warning is off where this is included.
#pragma once

#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
