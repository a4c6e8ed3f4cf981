/// @file
/// The connect options that are the layer's own.
#pragma once

#include <QString>

/// What the options whose names begin with VEXT_ ask for.
struct LayerOptions {
    bool exactNumbers = false;  ///< VEXT_EXACT_NUMBERS
    int statementTimeoutMs = 0; ///< VEXT_STATEMENT_TIMEOUT; 0: none
    int connectTimeoutMs = 0;   ///< VEXT_CONNECT_TIMEOUT; 0: none

    /// Reads the VEXT_ options anywhere among `options` and takes them out.
    /// @param options the user's connect options; then what the stock driver is to see
    /// @param error then what is wrong with them
    /// @return false when a VEXT_ name is unknown or a value is no number
    static bool take(QString *options, LayerOptions *layer, QString *error);
};
