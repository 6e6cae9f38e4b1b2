// All that an agent can get out of the module; gaussdb_module.version lets nothing else be seen.
#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/common/tpops_token.h"
#include "gaussdb/instance_handler/gaussdb_guide.h"
#include "gaussdb/instance_handler/gaussdb_instance_handler.h"
#include "gaussdb/job/gaussdb_backup_job_options_parser.h"
#include "gaussdb/job/gaussdb_backup_job_source_parser.h"
#include "gaussdb/job/gaussdb_job_creator.h"
#include "gaussdb/job/gaussdb_restore_job_options_parser.h"
#include "gaussdb/job/gaussdb_restore_job_source_parser.h"
#include "gaussdb/websvcs_agent/gaussdb_create_instance_handler.h"
#include "gaussdb/websvcs_agent/gaussdb_get_instance_handler.h"
#include "gaussdb/websvcs_agent/gaussdb_list_handler.h"
#include "gaussdb/websvcs_agent/gaussdb_modify_instance_handler.h"
#include "gaussdb/websvcs_agent/gaussdb_remove_instance_handler.h"
#include "gaussdb/websvcs_agent/roach_source_handler.h"
#include "gaussdb/websvcs_agent/tpops_add_instance_handler.h"
#include "gaussdb/websvcs_agent/tpops_list_handler.h"
#include "host/agent/module_factory.h"
#include "host/agent/object_creator.h"

using Parser_Creator = Object_Creator_T<YAJL_Handler>;
template <typename Parser>
using Parser_Creator_Impl_T = Object_Creator_Impl_T<Parser_Creator, Parser>;

MODULE_FACTORY(GaussDB_Job_Creator, Job_Creator, GaussDB_Job_Creator)

MODULE_CREATOR_FACTORY(GaussDB_Backup_Job_Options_Parser_Creator, Parser_Creator,
                       Parser_Creator_Impl_T<GaussDB_Backup_Job_Options_Parser>)
MODULE_CREATOR_FACTORY(GaussDB_Restore_Job_Options_Parser_Creator, Parser_Creator,
                       Parser_Creator_Impl_T<GaussDB_Restore_Job_Options_Parser>)
MODULE_CREATOR_FACTORY(GaussDB_Backup_Job_Source_Parser_Creator, Parser_Creator,
                       Parser_Creator_Impl_T<GaussDB_Backup_Job_Source_Parser>)
MODULE_CREATOR_FACTORY(GaussDB_Restore_Job_Source_Parser_Creator, Parser_Creator,
                       Parser_Creator_Impl_T<GaussDB_Restore_Job_Source_Parser>)

MODULE_FACTORY(GaussDB_Instance_Handler, Instance_Handler, GaussDB_Instance_Handler)
MODULE_FACTORY(JSON_RPC_GaussDB_List_Handler, JSON_RPC_Handler, JSON_RPC_GaussDB_List_Handler)
MODULE_FACTORY(JSON_RPC_GaussDB_Create_Instance_Handler, JSON_RPC_Handler,
               JSON_RPC_GaussDB_Create_Instance_Handler)
MODULE_FACTORY(JSON_RPC_GaussDB_Get_Instance_Handler, JSON_RPC_Handler,
               JSON_RPC_GaussDB_Get_Instance_Handler)
MODULE_FACTORY(JSON_RPC_GaussDB_Modify_Instance_Handler, JSON_RPC_Handler,
               JSON_RPC_GaussDB_Modify_Instance_Handler)
MODULE_FACTORY(JSON_RPC_GaussDB_Remove_Instance_Handler, JSON_RPC_Handler,
               JSON_RPC_GaussDB_Remove_Instance_Handler)
MODULE_FACTORY(JSON_RPC_Roach_Source_Handler, JSON_RPC_Handler, JSON_RPC_Roach_Source_Handler)
MODULE_FACTORY(JSON_RPC_TPOPS_Add_Instance_Handler, JSON_RPC_Handler,
               JSON_RPC_TPOPS_Add_Instance_Handler)
MODULE_FACTORY(JSON_RPC_TPOPS_List_Handler, JSON_RPC_Handler, JSON_RPC_TPOPS_List_Handler)

// not one of the fourteen: an agent may do without it, see host/agent/database_guide.h
MODULE_FACTORY(Database_Guide, Database_Guide, GaussDB_Guide)

/** Frees clusters and tokens, whose code is unloaded with the module. */
__attribute__((destructor)) static void unload_module() {
    GaussDB_Cluster_Manager_fini();
    TPOPS_Token_fini();
}
