#ifndef GAUSSDB_COMMON_GAUSSDB_CONST_H
#define GAUSSDB_COMMON_GAUSSDB_CONST_H

#include <cstdint>
#include <string>

/**
 * The flavours of GaussDB. The numbers are in instance records, in backup sets and in requests
 * between agents: they are never changed.
 */
enum GAUSSDB_VERSION {
    GAUSSDB_UNKNOWN = 0,       ///< not yet determined
    GAUSSDB_100 = 1,           ///< the 100 series
    GAUSSDB_200 = 2,           ///< the 200 series, also called "A"
    GAUSSDB_T = 3,             ///< GaussDB T, with the tools zengine, zsql and zctl.py
    GAUSSDB_DWS = 4,           ///< the data warehouse
    GAUSSDB_FOR_OPENGAUSS = 5, ///< the openGauss flavour
    GAUSSDB_TPOPS = 6          ///< reached through the TPOPS platform only
};

/** A flavour and a version number of three parts. A plain value. */
struct GaussDB_Version {
    constexpr GaussDB_Version(GAUSSDB_VERSION model, unsigned int major, unsigned int minor,
                              unsigned int patch)
        : model_(model), major_(major), minor_(minor), patch_(patch) {}

    /** True when all four fields are equal. */
    bool operator==(GaussDB_Version const& other) const;
    /** The order of the numbers alone: the flavour takes no part in this and the three below. */
    bool operator<(GaussDB_Version const& other) const;
    bool operator>=(GaussDB_Version const& other) const { return !(*this < other); }
    bool operator>(GaussDB_Version const& other) const { return other < *this; }
    bool operator<=(GaussDB_Version const& other) const { return !(other < *this); }

    /** "8.1.1"; the flavour is not in it. */
    std::string dump() const;

    /**
     * Reads the numbers from a text that is exactly "<digits>.<digits>.<digits>". The flavour
     * stays.
     * @return false, with an error line and nothing changed, for any other text.
     */
    [[nodiscard]] bool parse(std::string const& str);

    GAUSSDB_VERSION model_;
    uint32_t major_;
    uint32_t minor_;
    uint32_t patch_;
};

/** From here on the 200 series is driven differently: python3, other configuration file names. */
inline constexpr GaussDB_Version GAUSSDB_A_811(GAUSSDB_200, 8, 1, 1);
/** From here on DWS is driven differently. */
inline constexpr GaussDB_Version GAUSSDB_DWS_821(GAUSSDB_DWS, 8, 2, 1);
/** The openGauss flavour's first number since its numbering changed. */
inline constexpr int GAUSSDB_MAJOR_503 = 503;
/** The lowest first number at which a cluster can be protected without an agent on its nodes. */
inline constexpr int GAUSSDB_NON_INTRUSIVE_MINIMUM_VER = 8;

#endif
