#pragma once

/// Codes of the "ERROR\t%u" replies. Tools know them by number, so they never change.
enum eError : unsigned int
{
    ERREUR_AUCUNE = 0,
    ERREUR_SERVICE_INCONNU = 1, ///< no such server service found; CLUSTERINFO: or no folder of it
    ERREUR_START = 2,
    ERREUR_STOP = 3,
    ERREUR_STATUS = 4,
    ERREUR_COMMANDE_INCONNUE = 8,
    ERREUR_UNINSTALL_INCONNU = 11,  ///< UNINSTALL: no such server service found
    ERREUR_UNINSTALL_FICHIERS = 12, ///< UNINSTALL: the step on the server's directory
    ERREUR_UNINSTALL_SERVICE = 13,  ///< UNINSTALL: the service could not be removed
};
