// The main window: the switch and commands at the top, the notices, a strip
// per output or, on the other tab, per app, the visualiser, and the master
// volume with the playback mode at the bottom.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

ApplicationWindow {
    id: window
    objectName: "mainWindow"
    title: "Vellatone"
    width: 1080
    height: 720
    minimumWidth: 860
    minimumHeight: 520
    visible: false
    color: Theme.background

    palette {
        window: Theme.background
        windowText: Theme.text
        base: Theme.surface
        alternateBase: Theme.surfaceRaised
        text: Theme.text
        button: Theme.surfaceRaised
        buttonText: Theme.text
        highlight: Theme.accent
        highlightedText: Theme.accentText
        placeholderText: Theme.textMuted
        toolTipBase: Theme.surface
        toolTipText: Theme.text
        mid: Theme.border
        dark: Theme.border
        light: Theme.surface
        midlight: Theme.surfaceRaised
        shadow: Theme.dark ? "#000000" : "#9aa1ab"
    }
    font.pixelSize: Theme.bodySize

    // 0: the outputs, 1: the app mixer.
    property int mainTab: 0

    function openPalette() {
        if (!palette_.opened) palette_.open()
    }

    Shortcut {
        sequence: "Ctrl+N"
        onActivated: window.openPalette()
    }
    Shortcut {
        sequences: ["Ctrl+Return", "Ctrl+Enter"]
        onActivated: App.startStop()
    }
    Shortcut {
        sequences: [StandardKey.Undo]
        enabled: undoBar.visible
        onActivated: { App.undoRemove(); undoBar.offered = false }
    }
    Shortcut {
        sequence: "Ctrl+,"
        onActivated: settings.open()
    }
    Shortcut {
        sequences: [StandardKey.Quit]
        onActivated: Qt.quit()
    }

    header: Rectangle {
        implicitHeight: 60
        color: Theme.surface
        Rectangle {
            anchors { left: parent.left; right: parent.right; bottom: parent.bottom }
            height: 1
            color: Theme.border
        }
        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: Theme.pad
            anchors.rightMargin: Theme.pad
            spacing: Theme.pad
            Label {
                textFormat: Text.PlainText
                text: "Vellatone"
                font.pixelSize: 18
                font.weight: Font.Bold
                color: Theme.text
                Accessible.role: Accessible.Heading
            }
            StartSwitch {}
            Item { Layout.fillWidth: true }
            PillButton {
                objectName: "addOutputButton"
                text: qsTr("Add output")
                primary: true
                enabled: App.canAddOutput
                Accessible.name: qsTr("Add output")
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Add output (Ctrl+N)")
                onClicked: window.openPalette()
            }
            PillButton {
                objectName: "inviteButton"
                text: qsTr("Invite guests")
                enabled: App.hasSheets
                Accessible.name: text
                onClicked: sheets.openInvitation()
            }
            ToolButton {
                objectName: "settingsButton"
                text: "\u2699"
                font.pixelSize: 18
                Accessible.name: qsTr("Settings")
                ToolTip.visible: hovered
                ToolTip.text: qsTr("Settings")
                onClicked: settings.open()
            }
        }
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: Theme.pad
        spacing: Theme.gap + 4

        ColumnLayout {
            objectName: "notices"
            Layout.fillWidth: true
            spacing: Theme.gap
            visible: App.notices.count > 0
            Repeater {
                model: App.notices
                delegate: NoticeCard { Layout.fillWidth: true }
            }
        }

        Segmented {
            objectName: "mainTabs"
            options: [qsTr("Outputs"), qsTr("Apps")]
            current: window.mainTab === 0 ? qsTr("Outputs") : qsTr("Apps")
            namePrefix: "tab."
            accessibleName: qsTr("Show")
            onPicked: (value) => window.mainTab = value === qsTr("Outputs") ? 0 : 1
        }

        StackLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.minimumHeight: 120
            currentIndex: window.mainTab

            ListView {
                id: rowList
                objectName: "rowList"
                Layout.fillWidth: true
                Layout.fillHeight: true
                Layout.minimumHeight: 120
                spacing: Theme.gap
                clip: true
                model: App.rows
                keyNavigationEnabled: true
                activeFocusOnTab: false
                boundsBehavior: Flickable.StopAtBounds
                ScrollBar.vertical: ScrollBar {}
                property int dropIndex: -1

                function indexAtScene(sceneY) {
                    const p = rowList.mapFromItem(null, 0, sceneY)
                    return rowList.indexAt(10, p.y + rowList.contentY)
                }

                delegate: OutputStrip {
                    id: strip
                    width: ListView.view.width
                    first: index === 0
                    last: index === rowList.count - 1
                    dropTarget: rowList.dropIndex === index && rowList.dropIndex >= 0
                    onEqRequested: (s) => sheets.openEqualiser(s)
                    onMeasureRequested: (s) => sheets.openCalibration(s)
                    onRemoved: undoBar.offer()
                    onDragMoved: (sceneY) => {
                        const i = rowList.indexAtScene(sceneY)
                        rowList.dropIndex = i === index ? -1 : i
                    }
                    onDragEnded: (s, sceneY) => {
                        const i = rowList.indexAtScene(sceneY)
                        rowList.dropIndex = -1
                        if (i < 0 || i === index) return
                        const target = rowList.itemAtIndex(i)
                        if (target) App.moveRowDragging(s, target.slot)
                    }
                }

                Label {
                    textFormat: Text.PlainText
                    objectName: "emptyRows"
                    anchors.centerIn: parent
                    visible: rowList.count === 0
                    horizontalAlignment: Text.AlignHCenter
                    text: qsTr("No outputs yet.\nChoose “Add output” to send the sound of this computer to a speaker.")
                    color: Theme.textMuted
                    font.pixelSize: Theme.bodySize
                }
            }

            AppsPane {}
        }

        // The mixer's strips take the room the visualiser has beside the outputs.
        VisualiserPane {
            visible: window.mainTab === 0
            Layout.fillWidth: true
            Layout.preferredHeight: Math.max(150, window.height * 0.28)
        }
    }

    footer: Rectangle {
        implicitHeight: 56
        color: Theme.surface
        Rectangle {
            anchors { left: parent.left; right: parent.right; top: parent.top }
            height: 1
            color: Theme.border
        }
        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: Theme.pad
            anchors.rightMargin: Theme.pad
            spacing: Theme.pad
            MasterBar { onEqRequested: sheets.openEqualiser(-1) }
            Item { Layout.fillWidth: true }
            NowPlayingBar {}
            Item { Layout.fillWidth: true }
            PlaybackOptions {}
        }
    }

    UndoBar {
        id: undoBar
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        anchors.bottomMargin: Theme.pad
        z: 5
    }

    AddOutputPalette { id: palette_ }
    SettingsPopup {
        id: settings
        x: window.width - width - Theme.pad
        y: Theme.gap
    }
    SheetHost {
        id: sheets
        overlay: window.Overlay.overlay
    }

    // The model asks for a receiver's password, or a pairing, by itself,
    // once per row.
    Connections {
        target: App
        function onChanged() {
            if (App.hasSheets && App.passwordReceiverName !== "") sheets.openPassword()
            if (App.hasSheets && App.pairingReceiverName !== "") sheets.openPairing()
        }
    }
}
