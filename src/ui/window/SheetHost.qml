// Opens the equaliser, invitation, calibration and password sheets over the window, when the build
// has the sheets module. One sheet at a time; a closed sheet is destroyed.
import QtQuick
import QtQuick.Controls
import Vellatone

QtObject {
    id: host
    property Item overlay: null
    property var current: null

    function open(source, setup) {
        if (!App.hasSheets || current !== null) return
        let sheet = null
        try {
            sheet = Qt.createQmlObject("import Vellatone.Sheets\n" + source, overlay, "Sheet")
        } catch (e) {
            console.warn("sheet: " + e)
            return
        }
        sheet.app = App
        setup(sheet)
        current = sheet
        sheet.closed.connect(() => {
            if (host.current === sheet) host.current = null
            sheet.destroy()
        })
        if (typeof sheet.open === "function") sheet.open()
        else sheet.visible = true
    }

    function openEqualiser(slot) {
        open("EqualiserSheet {}", (sheet) => { sheet.slot = slot })
    }

    function openInvitation() {
        open("InvitationSheet {}", (sheet) => {})
    }

    function openCalibration(slot) {
        open("CalibrationSheet {}", (sheet) => { sheet.slot = slot })
    }

    function openPairing() {
        if (host.current && host.current.objectName === "pairingSheet") return
        open("PairingSheet {}", (sheet) => {})
    }

    function openPassword() {
        if (host.current && host.current.objectName === "passwordSheet") return
        open("PasswordSheet {}", (sheet) => {})
    }
}
