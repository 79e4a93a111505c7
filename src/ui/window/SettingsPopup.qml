// The preferences: appearance, the tray icon, opening at login.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

Popup {
    id: popup
    objectName: "settingsPopup"
    modal: true
    focus: true
    padding: Theme.pad
    width: 340
    closePolicy: Popup.CloseOnEscape | Popup.CloseOnPressOutside

    background: Rectangle {
        color: Theme.surface
        radius: Theme.radius + 2
        border.color: Theme.border
    }

    contentItem: ColumnLayout {
        spacing: Theme.gap
        Label {
            textFormat: Text.PlainText
            text: qsTr("Settings")
            font.pixelSize: Theme.titleSize
            font.weight: Font.DemiBold
            color: Theme.text
        }
        RowLayout {
            Layout.fillWidth: true
            Label {
                textFormat: Text.PlainText
                text: qsTr("Appearance")
                color: Theme.text
                Layout.fillWidth: true
            }
            ComboBox {
                id: appearance
                objectName: "settings.appearance"
                model: ["Auto", "Light", "Dark"]
                currentIndex: Math.max(0, model.indexOf(App.appearance))
                Accessible.name: qsTr("Appearance")
                onActivated: (index) => App.setAppearance(model[index])
            }
        }
        CheckBox {
            objectName: "settings.showInMenuBar"
            text: qsTr("Show in the tray")
            checked: App.showInMenuBar
            Accessible.name: text
            onToggled: {
                App.setShowInMenuBar(checked)
                checked = Qt.binding(() => App.showInMenuBar)
            }
        }
        CheckBox {
            objectName: "settings.openAtLogin"
            text: qsTr("Open at login")
            checked: App.openAtLogin
            Accessible.name: text
            onToggled: {
                App.setOpenAtLogin(checked)
                checked = Qt.binding(() => App.openAtLogin)
            }
        }
        Label {
            textFormat: Text.PlainText
            objectName: "settings.loginItemError"
            Layout.fillWidth: true
            visible: App.loginItemError.length > 0
            text: App.loginItemError
            wrapMode: Text.WordWrap
            color: Theme.fault
            font.pixelSize: Theme.smallSize
        }
    }
}
