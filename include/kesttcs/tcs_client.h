/* The KestTCS client library: every operation of the TCS interface as a C function with its
 * TSS 1.2 signature (context handle first), made as a DCE/RPC call to the kesttcsd service.
 *
 * Connection. The first call connects to the endpoint given to Tcs_Connect, else to
 * $KESTTCS_ENDPOINT, else to the service's default socket ("$RUNTIME_DIRECTORY/KestTCS",
 * "/run/kesttcs/KestTCS", "$XDG_RUNTIME_DIR/KestTCS"). An endpoint is a socket path, "unix:PATH"
 * or "tcp:127.0.0.1:PORT". All threads share the process's connection (calls on it are
 * serialised) unless a thread opens its own with Tcs_ConnectThread.
 *
 * Contexts. A context belongs to the process that opened it (over TCP: to the association group
 * of the connection); the service refuses its handle from anyone else with TCS_E_INVALID_CONTEXT
 * and closes a process's contexts when its last connection closes. A process holds at most the
 * service's limit of contexts (1024 unless configured); further opens fail with TCS_E_FAIL.
 *
 * Results. Every operation returns the service's TSS_RESULT. When the service cannot be reached,
 * the connection drops during a call, or the service answers with an RPC fault, the result is
 * TCS_E_COMM_FAILURE (0xE0282011) and Tcs_LastRpcStatus() gives the RPC status of the calling
 * thread's last call. Arguments the library cannot send (a null pointer where a value is required,
 * a null array with a non-zero size) give TCS_E_BAD_PARAMETER (0xE0282003) without a call. Outputs
 * are written even when the result is an error (zeros, null buffers).
 *
 * Memory. Every output buffer (BYTE** and structure outputs) is a block of this library owned by
 * the caller: free it with Tcs_FreeBuffer, or with Tcsi_FreeMemory(hContext, p) (NULL frees every
 * buffer handed out under that context). Structures with embedded arrays (TSS_PCR_EVENT,
 * TSS_KM_KEYINFO) come in one block with their data; freeing the block frees everything. Buffers
 * stay valid after Tcsi_CloseContext until freed. The service keeps no copy of them. */
#ifndef KESTTCS_TCS_CLIENT_H
#define KESTTCS_TCS_CLIENT_H

#include <kesttcs/tcs_types.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KESTTCS_CLIENT_API
#ifdef _WIN32
/* The Windows library is static: nothing to export. */
#define KESTTCS_CLIENT_API
#else
#define KESTTCS_CLIENT_API __attribute__((visibility("default")))
#endif
#endif

/* Results of this library besides the service's own. */
#define TCS_CLIENT_E_COMM_FAILURE ((TSS_RESULT)0xE0282011)
#define TCS_CLIENT_E_BAD_PARAMETER ((TSS_RESULT)0xE0282003)

/* Connects the process's connection to `endpoint` (NULL: $KESTTCS_ENDPOINT, else the default
 * socket), closing an earlier one. Returns 0 or TCS_E_COMM_FAILURE. */
KESTTCS_CLIENT_API TSS_RESULT Tcs_Connect(const char* endpoint);
/* Closes the process's connection; the service then closes the contexts this process opened
 * (unless another connection of the process stays open). */
KESTTCS_CLIENT_API void Tcs_Disconnect(void);
/* Gives the calling thread a connection of its own (used by its calls instead of the process's
 * one) / closes it again. Returns 0 or TCS_E_COMM_FAILURE. */
KESTTCS_CLIENT_API TSS_RESULT Tcs_ConnectThread(const char* endpoint);
KESTTCS_CLIENT_API void Tcs_DisconnectThread(void);
/* The RPC status of the calling thread's last call: 0, a fault status from the service
 * (0x1c010002 unknown operation, 0x000006f7 bad stub data, ...) or a client status (0x000006ba
 * service unavailable, 0x000006be connection lost). */
KESTTCS_CLIENT_API UINT32 Tcs_LastRpcStatus(void);
/* Frees an output buffer this library returned. NULL and pointers the library did not hand out
 * (or already freed) are ignored. */
KESTTCS_CLIENT_API void Tcs_FreeBuffer(void* buffer);

/* Tcsi_FreeMemory (opnum 5): frees `pMemory` (a buffer handed out under hContext) or, when it is
 * NULL, every buffer handed out under hContext, then asks the service, which checks the context:
 * returns 0 or TCS_E_INVALID_CONTEXT (the buffers are freed either way). */

/* The operations, written from the operation table (src/rpc/operations.h); the generated section
 * keeps the generator's layout. */
/* clang-format off */
/* BEGIN GENERATED OPERATIONS (kesttcs_ifgen) */

/* opnum 0 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_VendorCommand3(
    TCS_CONTEXT_HANDLE hContext,
    BYTE selector,
    UINT32 dataLen,
    BYTE* data,
    UINT32* respLen,
    BYTE** resp);

/* opnum 1 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_VendorCommand2(
    TCS_CONTEXT_HANDLE hContext,
    BYTE selector,
    UINT32 dataLen,
    BYTE* data,
    TPM_AUTH* pAuth);

/* opnum 2 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_VendorCommand1(
    TCS_CONTEXT_HANDLE hContext,
    BYTE selector,
    UINT32 dataLen,
    BYTE* data);

/* opnum 3 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_OpenContext(
    TCS_CONTEXT_HANDLE* hContext);

/* opnum 4 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_CloseContext(
    TCS_CONTEXT_HANDLE hContext);

/* opnum 5 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_FreeMemory(
    TCS_CONTEXT_HANDLE hContext,
    BYTE* pMemory);

/* opnum 6 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_GetCapability(
    TCS_CONTEXT_HANDLE hContext,
    TPM_CAPABILITY_AREA capArea,
    UINT32 subCapSize,
    BYTE* subCap,
    UINT32* respSize,
    BYTE** resp);

/* opnum 7 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_RegisterKey(
    TCS_CONTEXT_HANDLE hContext,
    TSS_UUID WrappingKeyUUID,
    TSS_UUID KeyUUID,
    UINT32 cKeySize,
    BYTE* rgbKey,
    UINT32 cVendorDataSize,
    BYTE* gbVendorData);

/* opnum 8 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_UnregisterKey(
    TCS_CONTEXT_HANDLE hContext,
    TSS_UUID KeyUUID);

/* opnum 9 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_KeyControlOwner(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hTcsKey,
    UINT32 ulPubKeyLength,
    BYTE* rgbPubKey,
    UINT32 attribName,
    TSS_BOOL attribValue,
    TPM_AUTH* pOwnerAuth,
    TSS_UUID* pUuidData);

/* opnum 10 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_EnumRegisteredKeys(
    TCS_CONTEXT_HANDLE hContext,
    TSS_UUID* pKeyUUID,
    UINT32* pcKeyHierarchySize,
    TSS_KM_KEYINFO** ppKeyHierarchy);

/* opnum 11 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_GetRegisteredKey(
    TCS_CONTEXT_HANDLE hContext,
    TSS_UUID KeyUUID,
    TSS_KM_KEYINFO** ppKeyInfo);

/* opnum 12 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_GetRegisteredKeyBlob(
    TCS_CONTEXT_HANDLE hContext,
    TSS_UUID KeyUUID,
    UINT32* pcKeySize,
    BYTE** prgbKey);

/* opnum 13 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_GetRegisteredKeyByPublicInfo(
    TCS_CONTEXT_HANDLE hContext,
    TPM_ALGORITHM_ID algID,
    UINT32 ulPublicInfoLength,
    BYTE* rgbPublicInfo,
    UINT32* keySize,
    BYTE** keyBlob);

/* opnum 14 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_LoadKeyByBlob(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hUnwrappingKey,
    UINT32 cWrappedKeyBlobSize,
    BYTE* rgbWrappedKeyBlob,
    TPM_AUTH* pAuth,
    TCS_KEY_HANDLE* phKeyTCSI,
    TCS_KEY_HANDLE* phKeyHMAC);

/* opnum 15 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_LoadKey2ByBlob(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hUnwrappingKey,
    UINT32 cWrappedKeyBlobSize,
    BYTE* rgbWrappedKeyBlob,
    TPM_AUTH* pAuth,
    TCS_KEY_HANDLE* phKeyTCSI);

/* opnum 16 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_LoadKeyByUUID(
    TCS_CONTEXT_HANDLE hContext,
    TSS_UUID KeyUUID,
    TCS_LOADKEY_INFO* pLoadKeyInfo,
    TCS_KEY_HANDLE* phKeyTCSI);

/* opnum 17 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_EvictKey(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hKey);

/* opnum 18 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CreateWrapKey(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hWrappingKey,
    TPM_ENCAUTH KeyUsageAuth,
    TPM_ENCAUTH KeyMigrationAuth,
    UINT32 keyInfoSize,
    BYTE* keyInfo,
    TPM_AUTH* pAuth,
    UINT32* keyDataSize,
    BYTE** keyData);

/* opnum 19 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_GetPubKey(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hKey,
    TPM_AUTH* pAuth,
    UINT32* pcPubKeySize,
    BYTE** prgbPubKey);

/* opnum 20 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_MakeIdentity(
    TCS_CONTEXT_HANDLE hContext,
    TPM_ENCAUTH identityAuth,
    TPM_CHOSENID_HASH IDLabel_PrivCAHash,
    UINT32 idIdentityKeyInfoSize,
    BYTE* idIdentityKeyInfo,
    TPM_AUTH* pSrkAuth,
    TPM_AUTH* pOwnerAuth,
    UINT32* idIdentityKeySize,
    BYTE** idIdentityKey,
    UINT32* pcIdentityBindingSize,
    BYTE** prgbIdentityBinding,
    UINT32* pcEndorsementCredentialSize,
    BYTE** prgbEndorsementCredential,
    UINT32* pcPlatformCredentialSize,
    BYTE** prgbPlatformCredential,
    UINT32* pcConformanceCredentialSize,
    BYTE** prgbConformanceCredential);

/* opnum 21 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_LogPcrEvent(
    TCS_CONTEXT_HANDLE hContext,
    TSS_PCR_EVENT Event,
    UINT32* pNumber);

/* opnum 22 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_GetPcrEvent(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 PcrIndex,
    UINT32* pNumber,
    TSS_PCR_EVENT** ppEvent);

/* opnum 23 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_GetPcrEventsByPcr(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 PcrIndex,
    UINT32 FirstEvent,
    UINT32* pEventCount,
    TSS_PCR_EVENT** ppEvents);

/* opnum 24 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_GetPcrEventLog(
    TCS_CONTEXT_HANDLE hContext,
    UINT32* pEventCount,
    TSS_PCR_EVENT** ppEvents);

/* opnum 25 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_SetOwnerInstall(
    TCS_CONTEXT_HANDLE hContext,
    TSS_BOOL state);

/* opnum 26 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_TakeOwnership(
    TCS_CONTEXT_HANDLE hContext,
    TPM_PROTOCOL_ID protocolID,
    UINT32 encOwnerAuthSize,
    BYTE* encOwnerAuth,
    UINT32 encSrkAuthSize,
    BYTE* encSrkAuth,
    UINT32 srkInfoSize,
    BYTE* srkInfo,
    TPM_AUTH* ownerAuth,
    UINT32* srkKeySize,
    BYTE** srkKey);

/* opnum 27 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_OIAP(
    TCS_CONTEXT_HANDLE hContext,
    TCS_AUTHHANDLE* authHandle,
    TPM_NONCE* nonce0);

/* opnum 28 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_OSAP(
    TCS_CONTEXT_HANDLE hContext,
    TPM_ENTITY_TYPE entityType,
    UINT32 entityValue,
    TPM_NONCE nonceOddOSAP,
    TCS_AUTHHANDLE* authHandle,
    TPM_NONCE* nonceEven,
    TPM_NONCE* nonceEvenOSAP);

/* opnum 29 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_DSAP(
    TCS_CONTEXT_HANDLE hContext,
    TPM_ENTITY_TYPE entityType,
    TCS_KEY_HANDLE keyHandle,
    TPM_NONCE nonceOddDSAP,
    UINT32 entityValueSize,
    BYTE* entityValue,
    TCS_AUTHHANDLE* authHandle,
    TPM_NONCE* nonceEven,
    TPM_NONCE* nonceEvenDSAP);

/* opnum 30 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ChangeAuth(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE parentHandle,
    TPM_PROTOCOL_ID protocolID,
    TPM_ENCAUTH newAuth,
    TPM_ENTITY_TYPE entityType,
    UINT32 encDataSize,
    BYTE* encData,
    TPM_AUTH* ownerAuth,
    TPM_AUTH* entityAuth,
    UINT32* outDataSize,
    BYTE** outData);

/* opnum 31 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ChangeAuthOwner(
    TCS_CONTEXT_HANDLE hContext,
    TPM_PROTOCOL_ID protocolID,
    TPM_ENCAUTH newAuth,
    TPM_ENTITY_TYPE entityType,
    TPM_AUTH* ownerAuth);

/* opnum 32 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ChangeAuthAsymStart(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE idHandle,
    TPM_NONCE antiReplay,
    UINT32 KeySizeIn,
    BYTE* KeyDataIn,
    TPM_AUTH* pAuth,
    UINT32* KeySizeOut,
    BYTE** KeyDataOut,
    UINT32* CertifyInfoSize,
    BYTE** CertifyInfo,
    UINT32* sigSize,
    BYTE** sig,
    TCS_KEY_HANDLE* ephHandle);

/* opnum 33 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ChangeAuthAsymFinish(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE parentHandle,
    TCS_KEY_HANDLE ephHandle,
    TPM_ENTITY_TYPE entityType,
    TPM_HMAC newAuthLink,
    UINT32 newAuthSize,
    BYTE* encNewAuth,
    UINT32 encDataSizeIn,
    BYTE* encDataIn,
    TPM_AUTH* ownerAuth,
    UINT32* encDataSizeOut,
    BYTE** encDataOut,
    TPM_NONCE* saltNonce,
    TPM_DIGEST* changeProof);

/* opnum 34 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_TerminateHandle(
    TCS_CONTEXT_HANDLE hContext,
    TCS_AUTHHANDLE handle);

/* opnum 35 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ActivateTPMIdentity(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE idKey,
    UINT32 blobSize,
    BYTE* blob,
    TPM_AUTH* idKeyAuth,
    TPM_AUTH* ownerAuth,
    UINT32* SymmetricKeySize,
    BYTE** SymmetricKey);

/* opnum 36 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_EstablishTransport(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 ulTransControlFlags,
    TCS_KEY_HANDLE hEncKey,
    UINT32 ulTransSessionInfoSize,
    BYTE* rgbTransSessionInfo,
    UINT32 ulSecretSize,
    BYTE* rgbSecret,
    TPM_AUTH* pEncKeyAuth,
    TPM_MODIFIER_INDICATOR* pbLocality,
    TCS_HANDLE* hTransSession,
    UINT32* ulCurrentTicksSize,
    BYTE** prgbCurrentTicks,
    TPM_NONCE* pTransNonce);

/* opnum 37 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ExecuteTransport(
    TCS_CONTEXT_HANDLE hContext,
    TPM_COMMAND_CODE unWrappedCommandOrdinal,
    UINT32 ulWrappedCmdParamInSize,
    BYTE* rgbWrappedCmdParamIn,
    UINT32* pulHandleListSize,
    TCS_HANDLE** rghHandles,
    TPM_AUTH* pWrappedCmdAuth1,
    TPM_AUTH* pWrappedCmdAuth2,
    TPM_AUTH* pTransAuth,
    UINT64* punCurrentTicks,
    TPM_MODIFIER_INDICATOR* pbLocality,
    TPM_RESULT* pulWrappedCmdReturnCode,
    UINT32* ulWrappedCmdParamOutSize,
    BYTE** rgbWrappedCmdParamOut);

/* opnum 38 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ReleaseTransportSigned(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hSignatureKey,
    TPM_NONCE AntiReplayNonce,
    TPM_AUTH* pKeyAuth,
    TPM_AUTH* pTransAuth,
    TPM_MODIFIER_INDICATOR* pbLocality,
    UINT32* pulCurrentTicksSize,
    BYTE** prgbCurrentTicks,
    UINT32* pulSignatureSize,
    BYTE** prgbSignature);

/* opnum 39 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Extend(
    TCS_CONTEXT_HANDLE hContext,
    TPM_PCRINDEX pcrNum,
    TPM_DIGEST inDigest,
    TPM_PCRVALUE* outDigest);

/* opnum 40 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_PcrRead(
    TCS_CONTEXT_HANDLE hContext,
    TPM_PCRINDEX pcrNum,
    TPM_PCRVALUE* outDigest);

/* opnum 41 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Quote(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    TPM_NONCE antiReplay,
    UINT32 pcrTargetSize,
    BYTE* pcrTarget,
    TPM_AUTH* privAuth,
    UINT32* pcrDataSize,
    BYTE** pcrData,
    UINT32* sigSize,
    BYTE** sig);

/* opnum 42 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Quote2(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    TPM_NONCE antiReplay,
    UINT32 pcrTargetSize,
    BYTE* pcrTarget,
    TSS_BOOL addVersion,
    TPM_AUTH* privAuth,
    UINT32* pcrDataSize,
    BYTE** pcrData,
    UINT32* versionInfoSize,
    BYTE** versionInfo,
    UINT32* sigSize,
    BYTE** sig);

/* opnum 43 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_DirWriteAuth(
    TCS_CONTEXT_HANDLE hContext,
    TPM_DIRINDEX dirIndex,
    TPM_DIRVALUE newContents,
    TPM_AUTH* ownerAuth);

/* opnum 44 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_DirRead(
    TCS_CONTEXT_HANDLE hContext,
    TPM_DIRINDEX dirIndex,
    TPM_DIRVALUE* dirValue);

/* opnum 45 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Seal(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    TPM_ENCAUTH encAuth,
    UINT32 pcrInfoSize,
    BYTE* PcrInfo,
    UINT32 inDataSize,
    BYTE* inData,
    TPM_AUTH* pubAuth,
    UINT32* SealedDataSize,
    BYTE** SealedData);

/* opnum 46 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_UnSeal(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE parentHandle,
    UINT32 SealedDataSize,
    BYTE* SealedData,
    TPM_AUTH* parentAuth,
    TPM_AUTH* dataAuth,
    UINT32* DataSize,
    BYTE** Data);

/* opnum 47 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Unbind(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    UINT32 inDataSize,
    BYTE* inData,
    TPM_AUTH* privAuth,
    UINT32* outDataSize,
    BYTE** outData);

/* opnum 48 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Sealx(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    TPM_ENCAUTH encAuth,
    UINT32 pcrInfoSize,
    BYTE* PcrInfo,
    UINT32 inDataSize,
    BYTE* inData,
    TPM_AUTH* pubAuth,
    UINT32* SealedDataSize,
    BYTE** SealedData);

/* opnum 49 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CreateMigrationBlob(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE parentHandle,
    TPM_MIGRATE_SCHEME migrationType,
    UINT32 MigrationKeyAuthSize,
    BYTE* MigrationKeyAuth,
    UINT32 encDataSize,
    BYTE* encData,
    TPM_AUTH* parentAuth,
    TPM_AUTH* entityAuth,
    UINT32* randomSize,
    BYTE** random,
    UINT32* outDataSize,
    BYTE** outData);

/* opnum 50 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ConvertMigrationBlob(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE parentHandle,
    UINT32 inDataSize,
    BYTE* inData,
    UINT32 randomSize,
    BYTE* random,
    TPM_AUTH* parentAuth,
    UINT32* outDataSize,
    BYTE** outData);

/* opnum 51 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_AuthorizeMigrationKey(
    TCS_CONTEXT_HANDLE hContext,
    TPM_MIGRATE_SCHEME migrateScheme,
    UINT32 MigrationKeySize,
    BYTE* MigrationKey,
    TPM_AUTH* ownerAuth,
    UINT32* MigrationKeyAuthSize,
    BYTE** MigrationKeyAuth);

/* opnum 52 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_SetOperatorAuth(
    TCS_CONTEXT_HANDLE hContext,
    TPM_SECRET operatorAuth);

/* opnum 53 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CertifyKey(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE certHandle,
    TCS_KEY_HANDLE keyHandle,
    TPM_NONCE antiReplay,
    TPM_AUTH* certAuth,
    TPM_AUTH* keyAuth,
    UINT32* CertifyInfoSize,
    BYTE** CertifyInfo,
    UINT32* outDataSize,
    BYTE** outData);

/* opnum 54 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CertifyKey2(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    TCS_KEY_HANDLE certHandle,
    TPM_DIGEST MSAdigest,
    TPM_NONCE antiReplay,
    TPM_AUTH* pKeyAuth,
    TPM_AUTH* pCertAuth,
    UINT32* pCertifyInfoSize,
    BYTE** ppCertifyInfo,
    UINT32* pSigSize,
    BYTE** ppSig);

/* opnum 55 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Sign(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    UINT32 areaToSignSize,
    BYTE* areaToSign,
    TPM_AUTH* privAuth,
    UINT32* sigSize,
    BYTE** sig);

/* opnum 56 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_GetRandom(
    TCS_CONTEXT_HANDLE hContext,
    UINT32* bytesRequested,
    BYTE** randomBytes);

/* opnum 57 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_StirRandom(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 inDataSize,
    BYTE* inData);

/* opnum 58 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_GetCapability(
    TCS_CONTEXT_HANDLE hContext,
    TPM_CAPABILITY_AREA capArea,
    UINT32 subCapSize,
    BYTE* subCap,
    UINT32* respSize,
    BYTE** resp);

/* opnum 59 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_GetCapabilitySigned(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    TPM_NONCE antiReplay,
    TPM_CAPABILITY_AREA capArea,
    UINT32 subCapSize,
    BYTE* subCap,
    TPM_AUTH* privAuth,
    TPM_VERSION* Version,
    UINT32* respSize,
    BYTE** resp,
    UINT32* sigSize,
    BYTE** sig);

/* opnum 60 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_GetCapabilityOwner(
    TCS_CONTEXT_HANDLE hContext,
    TPM_AUTH* pOwnerAuth,
    TPM_VERSION* pVersion,
    UINT32* pNonVolatileFlags,
    UINT32* pVolatileFlags);

/* opnum 61 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CreateEndorsementKeyPair(
    TCS_CONTEXT_HANDLE hContext,
    TPM_NONCE antiReplay,
    UINT32 endorsementKeyInfoSize,
    BYTE* endorsementKeyInfo,
    UINT32* endorsementKeySize,
    BYTE** endorsementKey,
    TPM_DIGEST* checksum);

/* opnum 62 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ReadPubek(
    TCS_CONTEXT_HANDLE hContext,
    TPM_NONCE antiReplay,
    UINT32* pubEndorsementKeySize,
    BYTE** pubEndorsementKey,
    TPM_DIGEST* checksum);

/* opnum 63 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_DisablePubekRead(
    TCS_CONTEXT_HANDLE hContext,
    TPM_AUTH* ownerAuth);

/* opnum 64 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_OwnerReadPubek(
    TCS_CONTEXT_HANDLE hContext,
    TPM_AUTH* ownerAuth,
    UINT32* pubEndorsementKeySize,
    BYTE** pubEndorsementKey);

/* opnum 65 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_SelfTestFull(
    TCS_CONTEXT_HANDLE hContext);

/* opnum 66 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CertifySelfTest(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    TPM_NONCE antiReplay,
    TPM_AUTH* privAuth,
    UINT32* sigSize,
    BYTE** sig);

/* opnum 67 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ContinueSelfTest(
    TCS_CONTEXT_HANDLE hContext);

/* opnum 68 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_GetTestResult(
    TCS_CONTEXT_HANDLE hContext,
    UINT32* outDataSize,
    BYTE** outData);

/* opnum 69 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_OwnerSetDisable(
    TCS_CONTEXT_HANDLE hContext,
    TSS_BOOL disableState,
    TPM_AUTH* ownerAuth);

/* opnum 70 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_OwnerClear(
    TCS_CONTEXT_HANDLE hContext,
    TPM_AUTH* ownerAuth);

/* opnum 71 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_DisableOwnerClear(
    TCS_CONTEXT_HANDLE hContext,
    TPM_AUTH* ownerAuth);

/* opnum 72 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ForceClear(
    TCS_CONTEXT_HANDLE hContext);

/* opnum 73 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_DisableForceClear(
    TCS_CONTEXT_HANDLE hContext);

/* opnum 74 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_PhysicalDisable(
    TCS_CONTEXT_HANDLE hContext);

/* opnum 75 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_PhysicalEnable(
    TCS_CONTEXT_HANDLE hContext);

/* opnum 76 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_PhysicalSetDeactivated(
    TCS_CONTEXT_HANDLE hContext,
    TSS_BOOL state);

/* opnum 77 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_SetTempDeactivated(
    TCS_CONTEXT_HANDLE hContext);

/* opnum 78 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_SetTempDeactivated2(
    TCS_CONTEXT_HANDLE hContext,
    TPM_AUTH* pOperatorAuth);

/* opnum 79 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_PhysicalPresence(
    TCS_CONTEXT_HANDLE hContext,
    TPM_PHYSICAL_PRESENCE fPhysicalPresence);

/* opnum 80 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_FieldUpgrade(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 dataInSize,
    BYTE* dataIn,
    TPM_AUTH* ownerAuth,
    UINT32* dataOutSize,
    BYTE** dataOut);

/* opnum 81 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_SetRedirection(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    TPM_REDIR_COMMAND redirCmd,
    UINT32 inputDataSize,
    BYTE* inputData,
    TPM_AUTH* ownerAuth);

/* opnum 82 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Delegate_Manage(
    TCS_CONTEXT_HANDLE hContext,
    TPM_FAMILY_ID familyID,
    TPM_FAMILY_OPERATION opFlag,
    UINT32 opDataSize,
    BYTE* opData,
    TPM_AUTH* ownerAuth,
    UINT32* retDataSize,
    BYTE** retData);

/* opnum 83 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Delegate_CreateKeyDelegation(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hKey,
    UINT32 publicInfoSize,
    BYTE* publicInfo,
    TPM_ENCAUTH encDelAuth,
    TPM_AUTH* keyAuth,
    UINT32* blobSize,
    BYTE** blob);

/* opnum 84 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Delegate_CreateOwnerDelegation(
    TCS_CONTEXT_HANDLE hContext,
    TSS_BOOL increment,
    UINT32 publicInfoSize,
    BYTE* publicInfo,
    TPM_ENCAUTH encDelAuth,
    TPM_AUTH* ownerAuth,
    UINT32* blobSize,
    BYTE** blob);

/* opnum 85 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Delegate_LoadOwnerDelegation(
    TCS_CONTEXT_HANDLE hContext,
    TPM_DELEGATE_INDEX index,
    UINT32 blobSize,
    BYTE* blob,
    TPM_AUTH* ownerAuth);

/* opnum 86 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Delegate_UpdateVerificationCount(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 inputSize,
    BYTE* input,
    TPM_AUTH* ownerAuth,
    UINT32* outputSize,
    BYTE** output);

/* opnum 87 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Delegate_VerifyDelegation(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 delegateSize,
    BYTE* delegate);

/* opnum 88 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_Delegate_ReadTable(
    TCS_CONTEXT_HANDLE hContext,
    UINT32* pulFamilyTableSize,
    BYTE** ppFamilyTable,
    UINT32* pulDelegateTableSize,
    BYTE** ppDelegateTable);

/* opnum 89 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_NV_DefineOrReleaseSpace(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 cPubInfoSize,
    BYTE* pPubInfo,
    TPM_ENCAUTH encAuth,
    TPM_AUTH* pAuth);

/* opnum 90 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_NV_WriteValue(
    TCS_CONTEXT_HANDLE hContext,
    TSS_NV_INDEX hNVStore,
    UINT32 offset,
    UINT32 ulDataLength,
    BYTE* rgbDataToWrite,
    TPM_AUTH* privAuth);

/* opnum 91 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_NV_WriteValueAuth(
    TCS_CONTEXT_HANDLE hContext,
    TSS_NV_INDEX hNVStore,
    UINT32 offset,
    UINT32 ulDataLength,
    BYTE* rgbDataToWrite,
    TPM_AUTH* NVAuth);

/* opnum 92 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_NV_ReadValue(
    TCS_CONTEXT_HANDLE hContext,
    TSS_NV_INDEX hNVStore,
    UINT32 offset,
    UINT32* pulDataLength,
    TPM_AUTH* privAuth,
    BYTE** rgbDataRead);

/* opnum 93 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_NV_ReadValueAuth(
    TCS_CONTEXT_HANDLE hContext,
    TSS_NV_INDEX hNVStore,
    UINT32 offset,
    UINT32* pulDataLength,
    TPM_AUTH* NVAuth,
    BYTE** rgbDataRead);

/* opnum 94 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CreateMaintenanceArchive(
    TCS_CONTEXT_HANDLE hContext,
    TSS_BOOL generateRandom,
    TPM_AUTH* ownerAuth,
    UINT32* randomSize,
    BYTE** random,
    UINT32* archiveSize,
    BYTE** archive);

/* opnum 95 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_LoadMaintenanceArchive(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 dataInSize,
    BYTE* dataIn,
    TPM_AUTH* ownerAuth,
    UINT32* dataOutSize,
    BYTE** dataOut);

/* opnum 96 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_KillMaintenanceFeature(
    TCS_CONTEXT_HANDLE hContext,
    TPM_AUTH* ownerAuth);

/* opnum 97 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_LoadManuMaintPub(
    TCS_CONTEXT_HANDLE hContext,
    TPM_NONCE antiReplay,
    UINT32 PubKeySize,
    BYTE* PubKey,
    TPM_DIGEST* checksum);

/* opnum 98 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ReadManuMaintPub(
    TCS_CONTEXT_HANDLE hContext,
    TPM_NONCE antiReplay,
    TPM_DIGEST* checksum);

/* opnum 99 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CreateRevocableEndorsementKeyPair(
    TCS_CONTEXT_HANDLE hContext,
    TPM_NONCE antiReplay,
    UINT32 endorsementKeyInfoSize,
    BYTE* endorsementKeyInfo,
    TSS_BOOL genResetAuth,
    TPM_DIGEST* eKResetAuth,
    UINT32* endorsementKeySize,
    BYTE** endorsementKey,
    TPM_DIGEST* checksum);

/* opnum 100 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_RevokeEndorsementKeyPair(
    TCS_CONTEXT_HANDLE hContext,
    TPM_DIGEST EKResetAuth);

/* opnum 101 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_PcrReset(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 pcrTargetSize,
    BYTE* pcrTarget);

/* opnum 102 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ReadCounter(
    TCS_CONTEXT_HANDLE hContext,
    TSS_COUNTER_ID idCounter,
    TPM_COUNTER_VALUE* counterValue);

/* opnum 103 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CreateCounter(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 LabelSize,
    BYTE* pLabel,
    TPM_ENCAUTH CounterAuth,
    TPM_AUTH* pOwnerAuth,
    TSS_COUNTER_ID* idCounter,
    TPM_COUNTER_VALUE* counterValue);

/* opnum 104 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_IncrementCounter(
    TCS_CONTEXT_HANDLE hContext,
    TSS_COUNTER_ID idCounter,
    TPM_AUTH* pCounterAuth,
    TPM_COUNTER_VALUE* counterValue);

/* opnum 105 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ReleaseCounter(
    TCS_CONTEXT_HANDLE hContext,
    TSS_COUNTER_ID idCounter,
    TPM_AUTH* pCounterAuth);

/* opnum 106 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ReleaseCounterOwner(
    TCS_CONTEXT_HANDLE hContext,
    TSS_COUNTER_ID idCounter,
    TPM_AUTH* pOwnerAuth);

/* opnum 107 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_TPM_ReadCurrentTicks(
    TCS_CONTEXT_HANDLE hContext,
    UINT32* pulCurrentTime,
    BYTE** prgbCurrentTime);

/* opnum 108 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_TickStampBlob(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hKey,
    TPM_NONCE antiReplay,
    TPM_DIGEST digestToStamp,
    TPM_AUTH* privAuth,
    UINT32* pulSignatureLength,
    BYTE** prgbSignature,
    UINT32* pulTickCountLength,
    BYTE** prgbTickCount);

/* opnum 109 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_TPM_DAA_Join(
    TCS_CONTEXT_HANDLE hContext,
    TPM_HANDLE handle,
    BYTE stage,
    UINT32 inputSize0,
    BYTE* inputData0,
    UINT32 inputSize1,
    BYTE* inputData1,
    TPM_AUTH* ownerAuth,
    UINT32* outputSize,
    BYTE** outputData);

/* opnum 110 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_TPM_DAA_Sign(
    TCS_CONTEXT_HANDLE hContext,
    TPM_HANDLE handle,
    BYTE stage,
    UINT32 inputSize0,
    BYTE* inputData0,
    UINT32 inputSize1,
    BYTE* inputData1,
    TPM_AUTH* ownerAuth,
    UINT32* outputSize,
    BYTE** outputData);

/* opnum 111 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_MigrateKey(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hMaKey,
    UINT32 PublicKeySize,
    BYTE* PublicKey,
    UINT32 inDataSize,
    BYTE* inData,
    TPM_AUTH* ownerAuth,
    UINT32* outDataSize,
    BYTE** outData);

/* opnum 112 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CMK_SetRestrictions(
    TCS_CONTEXT_HANDLE hContext,
    TSS_CMK_DELEGATE Restriction,
    TPM_AUTH* ownerAuth);

/* opnum 113 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CMK_ApproveMA(
    TCS_CONTEXT_HANDLE hContext,
    TPM_DIGEST migrationAuthorityDigest,
    TPM_AUTH* ownerAuth,
    TPM_HMAC* HmacMigAuthDigest);

/* opnum 114 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CMK_CreateKey(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE hWrappingKey,
    TPM_ENCAUTH KeyUsageAuth,
    TPM_HMAC MigAuthApproval,
    TPM_DIGEST MigAuthorityDigest,
    UINT32* keyDataSize,
    BYTE** prgbKeyData,
    TPM_AUTH* pAuth);

/* opnum 115 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CMK_CreateTicket(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 PublicVerifyKeySize,
    BYTE* PublicVerifyKey,
    TPM_DIGEST SignedData,
    UINT32 SigValueSize,
    BYTE* SigValue,
    TPM_AUTH* pOwnerAuth,
    TPM_HMAC* SigTicket);

/* opnum 116 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CMK_CreateBlob(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE parentHandle,
    TPM_MIGRATE_SCHEME migrationType,
    UINT32 MigrationKeyAuthSize,
    BYTE* MigrationKeyAuth,
    TPM_DIGEST PubSourceKeyDigest,
    UINT32 msaListSize,
    BYTE* msaList,
    UINT32 restrictTicketSize,
    BYTE* restrictTicket,
    UINT32 sigTicketSize,
    BYTE* sigTicket,
    UINT32 encDataSize,
    BYTE* encData,
    TPM_AUTH* parentAuth,
    UINT32* randomSize,
    BYTE** random,
    UINT32* outDataSize,
    BYTE** outData);

/* opnum 117 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_CMK_ConvertMigration(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE parentHandle,
    TPM_CMK_AUTH restrictTicket,
    TPM_HMAC sigTicket,
    UINT32 keyDataSize,
    BYTE* prgbKeyData,
    UINT32 msaListSize,
    BYTE* msaList,
    UINT32 randomSize,
    BYTE* random,
    TPM_AUTH* parentAuth,
    UINT32* outDataSize,
    BYTE** outData);

/* opnum 118 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_SetCapability(
    TCS_CONTEXT_HANDLE hContext,
    TPM_CAPABILITY_AREA capArea,
    UINT32 subCapSize,
    BYTE* subCap,
    UINT32 valueSize,
    BYTE* value,
    TPM_AUTH* pOwnerAuth);

/* opnum 119 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_GetAuditDigest(
    TCS_CONTEXT_HANDLE hContext,
    UINT32 startOrdinal,
    TPM_DIGEST* auditDigest,
    UINT32* counterValueSize,
    BYTE** counterValue,
    TSS_BOOL* more,
    UINT32* ordSize,
    UINT32** ordList);

/* opnum 120 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_GetAuditDigestSigned(
    TCS_CONTEXT_HANDLE hContext,
    TCS_KEY_HANDLE keyHandle,
    TSS_BOOL closeAudit,
    TPM_NONCE antiReplay,
    TPM_AUTH* privAuth,
    UINT32* counterValueSize,
    BYTE** counterValue,
    TPM_DIGEST* auditDigest,
    TPM_DIGEST* ordinalDigest,
    UINT32* sigSize,
    BYTE** sig);

/* opnum 121 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_SetOrdinalAuditStatus(
    TCS_CONTEXT_HANDLE hContext,
    TPM_AUTH* ownerAuth,
    UINT32 ulOrdinal,
    TSS_BOOL bAuditState);

/* opnum 122 */
KESTTCS_CLIENT_API TSS_RESULT Tcsip_ResetLockValue(
    TCS_CONTEXT_HANDLE hContext,
    TPM_AUTH* ownerAuth);

/* opnum 123 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_Reserved123(
    TCS_CONTEXT_HANDLE hContext);

/* opnum 124 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_Reserved124(
    TCS_CONTEXT_HANDLE hContext);

/* opnum 125 */
KESTTCS_CLIENT_API TSS_RESULT Tcsi_Reserved125(
    TCS_CONTEXT_HANDLE hContext);
/* END GENERATED OPERATIONS */
/* clang-format on */

#ifdef __cplusplus
}
#endif

#endif /* KESTTCS_TCS_CLIENT_H */
