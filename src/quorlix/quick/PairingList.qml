import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Quorlix

// The pairing screen of a Qt Quick host: the devices nearby as they are found, a click (or Return)
// pairs with one, Cancel or Escape ends the pairing without one. The scan runs while the list is
// visible.
Pane {
    id: root

    property alias appId: pairing.appId
    readonly property alias pairing: pairing

    signal paired(string key)
    signal cancelled

    onVisibleChanged: visible ? pairing.start() : pairing.stop()
    Component.onCompleted: if (visible) pairing.start()

    DevicePairing {
        id: pairing
        onPaired: key => root.paired(key)
        onCancelled: root.cancelled()
    }

    ColumnLayout {
        anchors.fill: parent

        Label {
            text: qsTr("Choose a device")
            font.pixelSize: 18
            font.bold: true
        }
        Label {
            Layout.fillWidth: true
            visible: pairing.error !== ""
            text: pairing.error
            color: "firebrick"
            wrapMode: Text.Wrap
        }
        Label {
            visible: pairing.error === "" && devices.count === 0
            text: qsTr("Looking for nearby devices…")
            opacity: 0.7
        }
        ListView {
            id: devices
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            focus: true
            model: pairing.devices
            highlight: Rectangle { color: palette.highlight; opacity: 0.3 }
            delegate: ItemDelegate {
                required property var modelData
                required property int index
                width: ListView.view.width
                text: modelData.info ? modelData.key + "  ·  " + modelData.info : modelData.key
                highlighted: ListView.isCurrentItem
                onClicked: pairing.pick(modelData.key)
            }
            Keys.onReturnPressed: if (currentIndex >= 0) pairing.pick(pairing.devices[currentIndex].key)
            Keys.onEnterPressed: if (currentIndex >= 0) pairing.pick(pairing.devices[currentIndex].key)
            Keys.onEscapePressed: pairing.cancel()
        }
        Button {
            Layout.alignment: Qt.AlignRight
            text: qsTr("Cancel")
            onClicked: pairing.cancel()
        }
    }
}
